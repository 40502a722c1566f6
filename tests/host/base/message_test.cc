// SPDX-License-Identifier: GPL-2.0-only
// Messages of the family for reading: texts, and what does not fit.
#include "base/message.hpp"

#include "capture_fixture.h"

namespace {

class MessageTest : public CaptureTest {
protected:
	// One message that write() fills; whether it was complete.
	template <typename Write> bool send(Write write, size_t room = 1024)
	{
		const seam_request request = { &fake::init_net(), 7, 0, 0, nullptr };
		sk_buff *skb = seam_capture_alloc(room);
		bool whole;
		{
			mox::Message message(skb, &request, MOX_CAPTURE_CMD_LOCATIONS);
			write(message);
			whole = message.end();
		}
		kernel().capture_answers.clear();
		EXPECT_EQ(seam_capture_reply(&request, skb), 0);
		got = capture::decode(kernel().capture_answers.at(0).message);
		kernel().capture_answers.clear();
		return whole;
	}
	Messages got;
};

// Up to the NUL, or to one less than the field, or to 63 characters.
TEST_F(MessageTest, text__ends_with_its_field)
{
	for (size_t field : { 1, 2, 16, 62, 63, 64, 65, 66, 100 })
		for (size_t length : { 0, 1, 15, 16, 61, 62, 63, 64, 65, 99, 100 }) {
			SCOPED_TRACE(testing::Message() << length << " in " << field);
			if (length > field)
				continue;
			// A field that is full has no NUL, and nothing behind it may be read.
			std::vector<char> text(field, 0);
			std::fill_n(text.begin(), length, 'n');
			ASSERT_TRUE(send([&](mox::Message &message) {
				message.text(MOX_CAPTURE_LOCATION_NAME, text.data(), field);
			}));
			ASSERT_EQ(got.size(), 1u);
			const size_t kept = std::min({ length, field - 1, size_t{ 63 } });
			EXPECT_EQ(got[0].text(MOX_CAPTURE_LOCATION_NAME), std::string(kept, 'n'));
			EXPECT_EQ(got[0].bytes(MOX_CAPTURE_LOCATION_NAME).size(), kept + 1);
		}
}

// What does not fit once stays incomplete, whatever would have room behind it.
TEST_F(MessageTest, nest__that_does_not_fit_ends_the_message)
{
	int inside = 0;
	EXPECT_FALSE(send(
		[&](mox::Message &message) {
			const std::vector<u8> much(40);
			while (message.fits())
				message.put(MOX_CAPTURE_LOCATION_NAME, much.data(), much.size());
			message.nest(MOX_CAPTURE_LOCATION_CLOSED, [&] { inside++; });
			EXPECT_FALSE(message.fits());
			message.number(MOX_CAPTURE_LOCATION_LOCATION, u32{ 1 });
			EXPECT_FALSE(message.fits());
		},
		128));
	EXPECT_EQ(inside, 0);
	EXPECT_TRUE(got.empty());
}

} // namespace
