/* SPDX-License-Identifier: GPL-2.0-only */
/* Sources of frames: a list in memory, or a capture file that is read while it is sent. */
#ifndef MOXSEND_SOURCE_H
#define MOXSEND_SOURCE_H

#include "protocols.h"

#include <pcap/pcap.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace moxsend {

/** A file could not be read; the text names it and the reason. */
class FileError : public std::runtime_error {
public:
	using std::runtime_error::runtime_error;
};

/** One frame; the bytes stay until the next call of the source. */
struct SourceFrame {
	std::span<const std::uint8_t> bytes;
	std::string defect; /**< why it cannot be sent; empty: it can */
};

class FrameSource {
public:
	virtual ~FrameSource() = default;
	/** The next frame, nothing behind the last one. May throw FileError. */
	virtual std::optional<SourceFrame> next() = 0;
	/** Goes back to the first frame. May throw FileError. */
	virtual void rewind() = 0;
	/** How many frames there are from the first to the last one, where that is known. */
	virtual std::optional<std::uint64_t> size() const = 0;
	/** For texts about the whole of it. */
	virtual std::string name() const = 0;
};

class ListSource : public FrameSource {
public:
	explicit ListSource(std::vector<Bytes> frames) : frames_(std::move(frames)) {}
	std::optional<SourceFrame> next() override;
	void rewind() override { at_ = 0; }
	std::optional<std::uint64_t> size() const override { return frames_.size(); }
	std::string name() const override { return "the list of frames"; }

private:
	std::vector<Bytes> frames_;
	std::size_t at_ = 0;
};

/**
 * A pcap or pcapng file of Ethernet frames, of either byte order; "-" is standard input, which cannot be rewound. A
 * frame that was cut when it was captured has a defect.
 */
class PcapSource : public FrameSource {
public:
	/** Opens the file. Throws FileError, also for other link types than Ethernet. */
	explicit PcapSource(const std::string &path);
	std::optional<SourceFrame> next() override;
	void rewind() override;
	std::optional<std::uint64_t> size() const override { return std::nullopt; }
	std::string name() const override { return "\"" + path_ + "\""; }

private:
	struct Close {
		void operator()(pcap_t *pcap) const { pcap_close(pcap); }
	};
	void open();

	std::string path_;
	std::unique_ptr<pcap_t, Close> pcap_;
	std::uint64_t number_ = 0;
};

} // namespace moxsend

#endif
