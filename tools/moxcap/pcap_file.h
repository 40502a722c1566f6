/* SPDX-License-Identifier: GPL-2.0 */
/* The capture file, written through libpcap. */
#ifndef MOXCAP_PCAP_FILE_H
#define MOXCAP_PCAP_FILE_H

#include "stored_frame.h"

#include <pcap/pcap.h>

#include <ctime>

#include <stdexcept>
#include <string>

namespace moxcap {

/** A capture file could not be created or written; the text names it and the reason. */
class FileError : public std::runtime_error {
public:
	using std::runtime_error::runtime_error;
};

/**
 * A pcap file with the link type that fits the frames' layout: Ethernet, 802.11, or for frames without a
 * layer-2 header Linux's cooked header, which has a field for the EtherType.
 */
class PcapFile {
public:
	/**
	 * Creates the file, or empties an existing one; "-" is standard output. snap: longest frame to come, in bytes.
	 * vlan_tags: whether VLAN tags are put back.
	 */
	PcapFile(const std::string &path, Layout layout, int snap, bool vlan_tags);
	~PcapFile();
	PcapFile(const PcapFile &) = delete;
	PcapFile &operator=(const PcapFile &) = delete;

	/** Adds a frame and writes it to the file at once, so that a reader can follow the file. */
	void write(const timespec &time, const ReceivedFrame &frame);

private:
	[[noreturn]] void fail_to_write(int error) const;

	FrameStorer storer_;
	std::string path_;
	pcap_t *pcap_ = nullptr;
	pcap_dumper_t *dumper_ = nullptr;
};

} // namespace moxcap

#endif
