/* SPDX-License-Identifier: GPL-2.0-only */
#include "pcap_file.h"

#include <cerrno>
#include <cstdio>

namespace moxcap {

PcapFile::PcapFile(const std::string &path, Layout layout, int snap, bool vlan_tags)
	: CaptureFile(path), storer_(layout, vlan_tags)
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

void PcapFile::write(const FileFrame &frame)
{
	StoredFrame stored = storer_.store(frame.received);
	pcap_pkthdr head{};
	head.ts.tv_sec = frame.time.tv_sec;
	head.ts.tv_usec = frame.time.tv_nsec / 1000;
	head.caplen = static_cast<bpf_u_int32>(stored.bytes.size());
	head.len = static_cast<bpf_u_int32>(stored.length);
	pcap_dump(reinterpret_cast<u_char *>(dumper_), &head, stored.bytes.data());
	if (pcap_dump_flush(dumper_) != 0)
		fail_to_write(errno);
}

int PcapFile::fd() const
{
	return fileno(pcap_dump_file(dumper_));
}

} // namespace moxcap
