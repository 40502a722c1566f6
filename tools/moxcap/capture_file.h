/* SPDX-License-Identifier: GPL-2.0-only */
/* What the formats of capture files have in common. */
#ifndef MOXCAP_CAPTURE_FILE_H
#define MOXCAP_CAPTURE_FILE_H

#include "stored_frame.h"

#include <ctime>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace moxcap {

/** A capture file could not be created or written; the text names it and the reason. */
class FileError : public std::runtime_error {
public:
	using std::runtime_error::runtime_error;
};

/** One frame for a capture file. */
struct FileFrame {
	timespec time{}; /**< of its arrival, since the epoch */
	ReceivedFrame received;
	std::uint32_t ifindex = 0;  /**< interface it came in on */
	std::string_view interface; /**< the name of that */
	std::uint64_t dropped = 0; /**< frames that the socket has dropped since the frame before */
};

/** A capture file that is being written. Functions throw FileError. */
class CaptureFile {
public:
	virtual ~CaptureFile() = default;
	CaptureFile(const CaptureFile &) = delete;
	CaptureFile &operator=(const CaptureFile &) = delete;

	/** Adds a frame and writes it to the file immediately, so that a reader can follow the file. */
	virtual void write(const FileFrame &frame) = 0;

	/** Ends the file. dropped: frames that the socket has dropped since the last frame; end: the time now. */
	virtual void finish(const timespec &end, std::uint64_t dropped) = 0;

	/** Whether the file has room for numbers of dropped frames. */
	virtual bool counts_drops() const = 0;

	/** The descriptor that is written to, for poll: POLLERR or POLLHUP mean that a pipe has no reader. */
	virtual int fd() const = 0;

	/** Throws the FileError of a pipe without a reader. */
	[[noreturn]] void fail_without_reader() const;

protected:
	/** path: "-" is standard output. */
	explicit CaptureFile(const std::string &path) : path_(path) {}

	/** Throws the FileError of a refused write. */
	[[noreturn]] void fail_to_write(int error) const;

private:
	std::string path_;
};

/** The link type of the frames: Ethernet, 802.11, or Linux's cooked header, which has a field for the EtherType. */
int link_type(Layout layout);

} // namespace moxcap

#endif
