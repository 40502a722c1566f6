// SPDX-License-Identifier: GPL-2.0-only
#include "capture_fixture.h"

namespace {

constexpr u32 kNumber = 99; // of a request
constexpr u32 kMulti = 2;   // NLM_F_MULTI

// Who asked, and whether the message is one of several.
void check_header(const capture::Message &message, u8 command, u32 flags)
{
	EXPECT_EQ(message.command, command);
	EXPECT_EQ(message.client, kClient);
	EXPECT_EQ(message.sequence, kNumber);
	EXPECT_EQ(message.flags, flags);
}

} // namespace

std::unique_ptr<u8[]> exact(const Bytes &bytes)
{
	auto copy = std::make_unique<u8[]>(bytes.size());
	std::copy(bytes.begin(), bytes.end(), copy.get());
	return copy;
}

Reader::Reader(u8 command, const Bytes &attributes) : command_(command)
{
	const seam_request req = request();
	started = mox_capture_dump_start(command, exact(attributes).get(), attributes.size(), &req,
					 &state_);
	open_ = started == 0;
	EXPECT_EQ(state_ != nullptr, open_) << "a state";
	EXPECT_EQ(reason.empty(), started != -EINVAL && started != -ERANGE) << reason;
}

seam_request Reader::request()
{
	return { &fake::init_net(), kClient, kNumber, kMulti, &reason };
}

int Reader::fill(size_t room)
{
	const seam_request req = request();
	sk_buff *skb = fake::skb_with_room(room);

	if (!open_) {
		ADD_FAILURE() << "a dump that is not open goes on";
		fake::skb_forget(skb, "a dump");
		return -EBADF;
	}
	sequence = 0;
	const int result = mox_capture_dump_fill(skb, state_, &req, &sequence);
	EXPECT_NE(sequence, 0u);
	EXPECT_TRUE(kernel().held.empty()) << "locks behind a buffer";
	last = capture::decode({ skb->data(), skb->data() + skb->len });
	for (const capture::Message &message : last)
		check_header(message, command_, kMulti);
	if (result >= 0)
		EXPECT_EQ(static_cast<u32>(result), skb->len);
	else
		EXPECT_EQ(skb->len, 0u) << "messages in front of an error";
	fills++;
	fake::skb_forget(skb, "a dump");
	return result;
}

Messages Reader::rest(size_t room)
{
	Messages all;
	for (int result = 1; result > 0 && fills < 200000;) {
		result = fill(room);
		EXPECT_GE(result, 0);
		all.insert(all.end(), last.begin(), last.end());
	}
	return all;
}

void Reader::close()
{
	if (open_)
		mox_capture_dump_done(state_);
	open_ = false;
}

int CaptureTest::ask_one(u8 command, const Bytes &attributes)
{
	reason.clear();
	answers.clear();
	kernel().capture_answers.clear();
	const seam_request req{ &fake::init_net(), kClient, kNumber, 0, &reason };
	const int result = mox_capture_do(command, exact(attributes).get(), attributes.size(),
					  &req);
	for (const auto &answer : kernel().capture_answers) {
		EXPECT_EQ(answer.client, kClient);
		for (const capture::Message &message : capture::decode(answer.message)) {
			check_header(message, command, 0);
			answers.push_back(message);
		}
	}
	EXPECT_TRUE(kernel().held.empty());
	EXPECT_EQ(reason.empty(), result != -EINVAL && result != -ERANGE && result != -ENOENT)
		<< reason;
	return result;
}

Messages CaptureTest::dump(u8 command, const Bytes &attributes, size_t room)
{
	Reader reader(command, attributes);
	EXPECT_EQ(reader.started, 0) << reader.reason;
	return reader.started == 0 ? reader.rest(room) : Messages{};
}
