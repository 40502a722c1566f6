/* SPDX-License-Identifier: GPL-2.0 */
#include "pcap_file.h"

#include <cerrno>
#include <cstring>

namespace moxcap {
namespace {

int link_type(Layout layout)
{
	switch (layout) {
	case Layout::kEthernet:
		return DLT_EN10MB;
	case Layout::kNetwork:
		return DLT_LINUX_SLL;
	case Layout::kWlan:
		return DLT_IEEE802_11;
	}
	return DLT_NULL;
}

} // namespace

PcapFile::PcapFile(const std::string &path, Layout layout, int snap, bool vlan_tags)
	: storer_(layout, vlan_tags), path_(path)
{
	pcap_ = pcap_open_dead(link_type(layout), snap + static_cast<int>(storer_.most_added()));
	if (!pcap_)
		throw FileError("cannot write \"" + path + "\": no memory");
	dumper_ = pcap_dump_open(pcap_, path.c_str());
	if (!dumper_) {
		std::string reason = pcap_geterr(pcap_);
		pcap_close(pcap_);
		throw FileError("cannot write a capture file: " + reason);
	}
}

PcapFile::~PcapFile()
{
	pcap_dump_close(dumper_);
	pcap_close(pcap_);
}

void PcapFile::write(const timespec &time, const ReceivedFrame &frame)
{
	StoredFrame stored = storer_.store(frame);
	pcap_pkthdr head{};
	head.ts.tv_sec = time.tv_sec;
	head.ts.tv_usec = time.tv_nsec / 1000;
	head.caplen = static_cast<bpf_u_int32>(stored.bytes.size());
	head.len = static_cast<bpf_u_int32>(stored.length);
	pcap_dump(reinterpret_cast<u_char *>(dumper_), &head, stored.bytes.data());
	if (pcap_dump_flush(dumper_) != 0)
		fail_to_write(errno);
}

void PcapFile::fail_to_write(int error) const
{
	std::string text = "cannot write to " +
			   (path_ == "-" ? "standard output" : "\"" + path_ + "\"") + ": ";
	switch (error) {
	case EPIPE:
		throw FileError(text + "the program that reads the capture has ended");
	case ENOSPC:
	case EDQUOT:
		throw FileError(text + std::strerror(error) + " (is the disk full?)");
	default:
		throw FileError(text + std::strerror(error));
	}
}

} // namespace moxcap
