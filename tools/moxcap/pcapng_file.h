/* SPDX-License-Identifier: GPL-2.0-only */
/* Capture files in the pcapng format, which has room for the interface of a frame and its control record. */
#ifndef MOXCAP_PCAPNG_FILE_H
#define MOXCAP_PCAPNG_FILE_H

#include "capture_file.h"
#include "pcapng_block.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace moxcap {

/** Blocks for interfaces in one file; frames of further interfaces share one more block. */
constexpr std::size_t kMostInterfaces = 1024;

/** The capture as a whole, as its file describes it. */
struct CaptureDescription {
	std::string hardware;        /**< of the device; empty: unknown */
	std::string system;          /**< its operating system; empty: unknown */
	std::string application;     /**< the program that captures */
	std::uint32_t location = 0;  /**< enum mox_packet_location */
	std::uint32_t treatment = 0; /**< enum mox_packet_treatment */
	std::string rules;           /**< as a text */
};

/** This machine, for the first three. */
CaptureDescription describe_machine();

/**
 * A pcapng file with a description block for each interface that a frame came from. A frame has its direction, the
 * number of frames dropped before it, and a comment with treatment and control record. finish() adds the statistics of
 * each interface. The socket does not know which interface a dropped frame came from: it is counted where it is
 * reported, for the interface of the next frame; or of the last one, at the end.
 */
class PcapngFile : public CaptureFile {
public:
	/**
	 * Creates the file, or empties an existing one; "-" is standard output. snap: longest frame to come, in bytes.
	 * vlan_tags: whether VLAN tags are put back.
	 */
	PcapngFile(const std::string &path, Layout layout, int snap, bool vlan_tags,
		   const CaptureDescription &description);
	~PcapngFile() override;

	void write(const FileFrame &frame) override;
	void finish(const timespec &end, std::uint64_t dropped) override;
	bool counts_drops() const override { return true; }
	int fd() const override { return fd_; }

private:
	/** An interface's block; its number is its place in the list. */
	struct Interface {
		std::uint64_t first = 0; /**< time of its first frame, in nanoseconds */
		std::uint64_t frames = 0, dropped = 0;
	};

	void write_section();
	std::uint32_t interface_of(const FileFrame &frame);
	void write_interface(const std::string &name, const std::string &what);
	void write_block();

	FrameStorer storer_;
	std::uint16_t link_type_;
	std::uint32_t snap_;
	CaptureDescription description_;
	int fd_ = -1;
	bool close_ = false;
	PcapngBlock block_;
	std::vector<Interface> interfaces_;
	std::map<std::uint32_t, std::uint32_t> numbers_; /**< of blocks, by interface index */
	std::uint32_t last_ = 0;                         /**< number of the last frame's block */
};

/** The treatment of a frame and what its control record says, in words. */
std::string comment_text(std::uint32_t treatment, const ReceivedFrame &frame);

} // namespace moxcap

#endif
