// SPDX-License-Identifier: GPL-2.0-only
// What the decoder and the fakes of the family for reading find fault with: a test of the module
// that passes has passed these checks, too.
#include <gtest/gtest-spi.h>

#include "capture_fixture.h"

namespace {

// The failures of a call, as one text.
std::string failures(const std::function<void()> &call)
{
	testing::TestPartResultArray results;
	{
		testing::ScopedFakeTestPartResultReporter reporter(
			testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD,
			&results);
		call();
	}
	std::string text;
	for (int i = 0; i < results.size(); i++)
		text += std::string(results.GetTestPartResult(i).message()) + "\n";
	return text;
}

// A message of a command.
Bytes message(u8 command, const Bytes &attributes)
{
	Bytes bytes(20);
	const u32 length = static_cast<u32>(20 + attributes.size());
	memcpy(&bytes[0], &length, 4);
	bytes[16] = command;
	bytes[17] = MOX_CAPTURE_VERSION;
	return bytes + attributes;
}

const u16 kNest = 0x8000;

TEST(CaptureDecode, decode__what_it_accepts)
{
	const Bytes values = attribute(MOX_CAPTURE_RULE_VALUE | kNest,
				       attribute<u32>(MOX_CAPTURE_VALUE_TYPE, 3) +
					       attribute(MOX_CAPTURE_VALUE_DATA, Bytes{ 8, 6 }));
	const Messages all = capture::decode(
		message(MOX_CAPTURE_CMD_RULES, attribute<u64>(MOX_CAPTURE_RULE_COOKIE, 5) + values +
						       values +
						       attribute(MOX_CAPTURE_RULE_MORE, Bytes{})) +
		message(MOX_CAPTURE_CMD_THREAD, {}));
	ASSERT_EQ(all.size(), 2u);
	EXPECT_EQ(all[0].u64(MOX_CAPTURE_RULE_COOKIE), 5u);
	EXPECT_EQ(all[0].nests(MOX_CAPTURE_RULE_VALUE).size(), 2u);
	EXPECT_EQ(all[0].nests(MOX_CAPTURE_RULE_VALUE)[1].bytes(MOX_CAPTURE_VALUE_DATA),
		  (Bytes{ 8, 6 }));
	EXPECT_EQ(all[1].command, MOX_CAPTURE_CMD_THREAD);
}

TEST(CaptureDecode, decode__what_it_refuses)
{
	const Bytes name = attribute(MOX_CAPTURE_MEMORY_NAME, Bytes{ 'x', 0 });
	Bytes padded = name, cut = message(MOX_CAPTURE_CMD_MEMORY, name),
	      old = message(MOX_CAPTURE_CMD_MEMORY, name);
	padded.back() = 1;
	cut.resize(cut.size() - 4);
	old[17]++;
	const struct {
		Bytes bytes;
		const char *failure;
	} rows[] = {
		{ message(MOX_CAPTURE_CMD_MEMORY, attribute<u32>(10, 1)), "has no attribute 10" },
		{ message(MOX_CAPTURE_CMD_MEMORY, attribute<u32>(0, 1)), "has no attribute 0" },
		{ message(MOX_CAPTURE_CMD_MEMORY, name + name), "comes twice" },
		{ message(MOX_CAPTURE_CMD_MEMORY, attribute<u32>(MOX_CAPTURE_MEMORY_OBJECTS, 1)),
		  "size" },
		{ message(MOX_CAPTURE_CMD_RULES, attribute<u8>(MOX_CAPTURE_RULE_MORE, 1)), "size" },
		{ message(MOX_CAPTURE_CMD_MEMORY, attribute(MOX_CAPTURE_MEMORY_NAME, Bytes{ 'x' })),
		  "payload" },
		{ message(MOX_CAPTURE_CMD_MEMORY,
			  attribute(MOX_CAPTURE_MEMORY_NAME, Bytes{ 'x', 0, 0 })),
		  "payload" },
		{ message(MOX_CAPTURE_CMD_MEMORY, attribute(MOX_CAPTURE_MEMORY_NAME, Bytes{})),
		  "payload" },
		{ message(MOX_CAPTURE_CMD_MEMORY, padded), "padding" },
		{ message(MOX_CAPTURE_CMD_MEMORY, { 8, 0, 1, 0 }), "8 bytes, 4 left" },
		{ message(MOX_CAPTURE_CMD_MEMORY, { 3, 0, 1, 0 }), "3 bytes" },
		{ message(MOX_CAPTURE_CMD_RULES,
			  attribute(MOX_CAPTURE_RULE_VALUE,
				    attribute<u32>(MOX_CAPTURE_VALUE_TYPE, 3))),
		  "the nested bit" },
		{ message(MOX_CAPTURE_CMD_RULES,
			  attribute<u64>(MOX_CAPTURE_RULE_COOKIE | kNest, 3)),
		  "the nested bit" },
		{ message(MOX_CAPTURE_CMD_RULES,
			  attribute(MOX_CAPTURE_RULE_VALUE | kNest, attribute<u32>(4, 3))),
		  "VALUE has no attribute 4" },
		{ message(MOX_CAPTURE_CMD_RESTRICT, {}), "an answer to command 8" },
		{ message(99, {}), "an answer to command 99" },
		{ cut, "a message of" },
		{ old, "version" },
		{ Bytes(19), "a message of" },
	};
	for (const auto &row : rows) {
		const std::string text = failures([&] { capture::decode(row.bytes); });
		EXPECT_NE(text.find(row.failure), std::string::npos)
			<< row.failure << " is not in: " << text;
	}
	const capture::Message none;
	EXPECT_NE(failures([&] { none.u32(1); }), "");
	EXPECT_NE(failures([&] { none.nest(1); }), "");
}

class CaptureFakes : public fake::KernelTest {
protected:
	// What calls on a fresh buffer of 256 bytes, with a message begun, fail with.
	std::string of(const std::function<void(sk_buff *, void *)> &calls)
	{
		return failures([&] {
			sk_buff *skb = fake::skb_with_room(256);
			calls(skb, seam_capture_begin(skb, &request, MOX_CAPTURE_CMD_RULES));
			skb->open.clear();
			fake::skb_forget(skb, "the end of a test");
		});
	}
	const seam_request request{ &fake::init_net(), 1, 2, 0, nullptr };
};

TEST_F(CaptureFakes, write__misuse)
{
	const u32 number = 1;
	const struct {
		const char *breach; // empty: none
		std::function<void(sk_buff *, void *)> calls;
	} rows[] = {
		{ "", [](sk_buff *skb, void *m) { seam_capture_end(skb, m); } },
		{ "", [](sk_buff *skb, void *m) { seam_capture_cancel(skb, m); } },
		{ "",
		  [](sk_buff *skb, void *m) {
			  seam_capture_nest(skb, 8);
			  seam_capture_cancel(skb, m);
			  EXPECT_EQ(skb->len, 0u);
		  } },
		{ "begun within",
		  [&](sk_buff *skb, void *) { seam_capture_begin(skb, &request, 1); } },
		{ "outside of a message",
		  [&](sk_buff *skb, void *m) {
			  seam_capture_end(skb, m);
			  seam_capture_put(skb, 1, 4, &number);
		  } },
		{ "genlmsg_end without a message",
		  [](sk_buff *skb, void *m) {
			  seam_capture_end(skb, m);
			  seam_capture_end(skb, m);
		  } },
		{ "not the innermost",
		  [](sk_buff *skb, void *m) {
			  seam_capture_nest(skb, 8);
			  seam_capture_end(skb, m);
		  } },
		{ "not the innermost",
		  [](sk_buff *skb, void *) {
			  void *outer = seam_capture_nest(skb, 8);
			  seam_capture_nest(skb, 8);
			  seam_capture_nest_end(skb, outer);
		  } },
		{ "outside of a nested attribute",
		  [](sk_buff *skb, void *) {
			  void *nest = seam_capture_nest(skb, 8);
			  seam_capture_nest_end(skb, nest);
			  seam_capture_nest_end(skb, nest);
		  } },
		{ "genlmsg_cancel without a message",
		  [](sk_buff *skb, void *m) {
			  seam_capture_end(skb, m);
			  seam_capture_cancel(skb, m);
		  } },
		{ "of type 0",
		  [&](sk_buff *skb, void *) { seam_capture_put(skb, 0, 4, &number); } },
		{ "the nested bit",
		  [&](sk_buff *skb, void *) { seam_capture_put(skb, 0x8001, 4, &number); } },
		{ "bytes and their number differ",
		  [](sk_buff *skb, void *) { seam_capture_put(skb, 1, 4, nullptr); } },
	};
	for (const auto &row : rows) {
		const std::string text = of(row.calls);
		if (*row.breach)
			EXPECT_NE(text.find(row.breach), std::string::npos)
				<< row.breach << " is not in: " << text;
		else
			EXPECT_EQ(text, "");
	}
	EXPECT_NE(failures([&] {
			  sk_buff *skb = seam_capture_alloc(64);
			  seam_capture_begin(skb, &request, 1);
			  seam_capture_free(skb);
		  }).find("half a message"),
		  std::string::npos);
	EXPECT_NE(failures([&] {
			  kernel().bh_disabled++;
			  seam_capture_free(seam_capture_alloc(64));
			  kernel().bh_disabled--;
		  }).find("may sleep"),
		  std::string::npos);
}

// Attributes are aligned to 4 bytes, padded with zeros; one without room leaves the buffer as
// it was.
TEST_F(CaptureFakes, write__layout_and_room)
{
	const u8 bytes[16] = { 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16 };
	for (u32 room = 20; room < 64; room++)
		for (u32 size = 1; size <= 16; size++) {
			sk_buff *skb = fake::skb_with_room(room);
			void *m = seam_capture_begin(skb, &request, MOX_CAPTURE_CMD_RULES);
			ASSERT_NE(m, nullptr);
			EXPECT_EQ(seam_capture_room(skb), room - 20);
			const u32 step = 4 + ((size + 3) & ~3u);
			const bool fits = step <= room - 20;
			EXPECT_EQ(seam_capture_put(skb, 9, size, bytes), fits ? 0 : -EMSGSIZE);
			EXPECT_EQ(skb->len, 20 + (fits ? step : 0));
			if (fits) {
				Bytes wanted = { static_cast<u8>(4 + size), 0, 9, 0 };
				wanted.insert(wanted.end(), bytes, bytes + size);
				wanted.resize(step);
				EXPECT_EQ(Bytes(skb->data() + 20, skb->data() + 20 + step), wanted);
			}
			seam_capture_end(skb, m);
			EXPECT_EQ(skb->data()[0], skb->len);
			fake::skb_forget(skb, "the end of a test");
		}
	sk_buff *skb = fake::skb_with_room(19);
	EXPECT_EQ(seam_capture_begin(skb, &request, 1), nullptr);
	fake::skb_forget(skb, "the end of a test");
}

} // namespace
