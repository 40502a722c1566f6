// SPDX-License-Identifier: GPL-2.0-only
// For tests of the family for reading: requests as bytes, answers and dumps as messages.
#pragma once

#include <memory>

#include "capture_decode.h"
#include "control/capture.hpp"
#include "control_fixture.h"

// An attribute of a request.
inline Bytes attribute(u16 type, const Bytes &payload)
{
	Bytes bytes(4);
	const u16 length = static_cast<u16>(4 + payload.size());
	memcpy(&bytes[0], &length, 2);
	memcpy(&bytes[2], &type, 2);
	bytes.insert(bytes.end(), payload.begin(), payload.end());
	bytes.resize((bytes.size() + 3) & ~size_t{ 3 });
	return bytes;
}

template <typename T> Bytes attribute(u16 type, T number)
{
	Bytes payload(sizeof(number));
	memcpy(payload.data(), &number, sizeof(number));
	return attribute(type, payload);
}

// A copy that has not a byte more than the request: what is read behind it fails the test.
std::unique_ptr<u8[]> exact(const Bytes &bytes);

using Messages = std::vector<capture::Message>;

// A dump as the kernel runs it: a fresh buffer for each call, the end after a call that has
// added nothing, or whenever the reader closes its socket.
class Reader {
public:
	Reader(u8 command, const Bytes &attributes = {});
	~Reader() { close(); }
	Reader(const Reader &) = delete;
	Reader &operator=(const Reader &) = delete;

	// Fills one buffer: what the module returns. The messages are then in `last`.
	int fill(size_t room);
	// To the end, with buffers of so many bytes; all messages.
	Messages rest(size_t room);
	void close();

	int started; // of the request
	std::string reason;
	Messages last;
	u32 sequence = 0; // of the last call
	int fills = 0;

private:
	seam_request request();

	u8 command_;
	void *state_ = nullptr;
	bool open_ = false;
};

class CaptureTest : public ControlTest {
protected:
	// A request for one answer: the module's result; the answer, if any, is in `answers`.
	int ask_one(u8 command, const Bytes &attributes = {});
	// All messages of a dump.
	static Messages dump(u8 command, const Bytes &attributes = {}, size_t room = 8192);

	std::string reason; // the explanation of the last request
	Messages answers;
};
