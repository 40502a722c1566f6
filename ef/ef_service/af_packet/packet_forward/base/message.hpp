// SPDX-License-Identifier: GPL-2.0-only
/* Messages of mox_capture, attribute by attribute. */
#pragma once

#include "base/counters.hpp"
#include "seam/seam_capture.h"

namespace mox {

/**
 * A message that is being written to a buffer. Unless end() was called, it is removed
 * again at the end of its scope. Attributes that find no room are left out, and fits()
 * is false from then on. Any context.
 */
class Message : Pinned {
public:
	Message(sk_buff *skb, const seam_request *request, u8 command)
		: skb_(skb), message_(seam_capture_begin(skb, request, command)),
		  fits_(message_ != nullptr)
	{
	}
	~Message()
	{
		if (message_ && !ended_)
			seam_capture_cancel(skb_, message_);
	}

	bool fits() const { return fits_; }
	/** Bytes that are left for attributes. */
	size_t room() const { return seam_capture_room(skb_); }
	/** Complete the message, if all of it fits. */
	bool end()
	{
		if (!fits_)
			return false;
		seam_capture_end(skb_, message_);
		ended_ = true;
		return true;
	}

	template <typename T> void number(int attribute, T value)
	{
		put(attribute, &value, sizeof(value));
	}
	void put(int attribute, const void *bytes, size_t size)
	{
		fits_ = fits_ && seam_capture_put(skb_, attribute, size, bytes) == 0;
	}
	/** A text of at most size bytes, its NUL included. */
	void text(int attribute, const char *text, size_t size)
	{
		size_t length = 0;

		while (length + 1 < size && text[length])
			length++;
		char copy[kLongestText]{};
		if (length >= sizeof(copy))
			length = sizeof(copy) - 1;
		__builtin_memcpy(copy, text, length);
		put(attribute, copy, length + 1);
	}
	void flag(int attribute, bool is_set)
	{
		if (is_set)
			put(attribute, nullptr, 0);
	}
	/** Write attributes within one: write(). */
	template <typename Write> void nest(int attribute, Write write)
	{
		void *nest = fits_ ? seam_capture_nest(skb_, attribute) : nullptr;

		fits_ = nest != nullptr;
		if (!fits_)
			return;
		write();
		if (fits_)
			seam_capture_nest_end(skb_, nest);
	}

private:
	static constexpr size_t kLongestText = 64;

	sk_buff *skb_;
	void *message_;
	bool fits_;
	bool ended_ = false;
};

/** The counters of a socket, or of several: total(attribute) is one's value. */
template <typename Total> void put_counters(Message &message, int attribute, Total total)
{
	message.nest(attribute, [&] {
		for (u32 number = 1; number <= MOX_SOCKET_TOTALS; number++)
			message.number(static_cast<int>(number), total(static_cast<Tally>(number)));
	});
}

} // namespace mox
