/* SPDX-License-Identifier: GPL-2.0 */
/* The capture file, written through libpcap. */
#ifndef MOXCAP_PCAP_FILE_H
#define MOXCAP_PCAP_FILE_H

#include "decode.h"

#include <pcap/pcap.h>

#include <ctime>

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

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
	/** Creates the file, or empties an existing one; "-" is standard output. snap: longest frame to come, in bytes. */
	PcapFile(const std::string &path, Layout layout, int snap);
	~PcapFile();
	PcapFile(const PcapFile &) = delete;
	PcapFile &operator=(const PcapFile &) = delete;

	/**
     * Adds a frame and writes it to the file at once, so that a reader can follow the file. bytes
     * may be the beginning of a frame of length bytes. header is false for the frame of a raw socket that came
     * without a layer-2 header: it gets the header that the rules compared, of zero addresses, with ether_type.
     */
	void write(const timespec &time, std::span<const std::uint8_t> bytes, std::size_t length,
		   std::uint16_t ether_type, bool header = true);

private:
	[[noreturn]] void fail_to_write(int error) const;

	Layout layout_;
	std::string path_;
	pcap_t *pcap_ = nullptr;
	pcap_dumper_t *dumper_ = nullptr;
	std::vector<std::uint8_t> scratch_;
};

} // namespace moxcap

#endif
