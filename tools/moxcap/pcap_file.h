/* SPDX-License-Identifier: GPL-2.0-only */
/* Capture files in the pcap format, written through libpcap. */
#ifndef MOXCAP_PCAP_FILE_H
#define MOXCAP_PCAP_FILE_H

#include "capture_file.h"

#include <pcap/pcap.h>

#include <string>

namespace moxcap {

/** A pcap file with the link type that fits the frames' layout. */
class PcapFile : public CaptureFile {
public:
	/**
	 * Creates the file, or empties an existing one; "-" is standard output. snap: longest frame to come, in bytes.
	 * vlan_tags: whether VLAN tags are put back.
	 */
	PcapFile(const std::string &path, Layout layout, int snap, bool vlan_tags);
	~PcapFile() override;

	void write(const FileFrame &frame) override;
	/** The format has no end. */
	void finish(const timespec &, std::uint64_t) override {}
	bool counts_drops() const override { return false; }
	int fd() const override;

private:
	FrameStorer storer_;
	pcap_t *pcap_ = nullptr;
	pcap_dumper_t *dumper_ = nullptr;
};

} // namespace moxcap

#endif
