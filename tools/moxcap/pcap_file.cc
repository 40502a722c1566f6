/* SPDX-License-Identifier: GPL-2.0 */
#include "pcap_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace moxcap {
namespace {

// Of the two headers that are put in front of a frame the cooked one is the longer.
constexpr std::size_t kEthernetHeader = 14, kCookedHeader = 16;

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

PcapFile::PcapFile(const std::string &path, Layout layout, int snap) : layout_(layout), path_(path)
{
	pcap_ = pcap_open_dead(link_type(layout), snap + static_cast<int>(kCookedHeader));
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

void PcapFile::write(const timespec &time, std::span<const std::uint8_t> bytes, std::size_t length,
		     std::uint16_t ether_type, bool header)
{
	std::size_t front = layout_ == Layout::kNetwork               ? kCookedHeader
			    : layout_ == Layout::kEthernet && !header ? kEthernetHeader
								      : 0;
	std::span<const std::uint8_t> stored = bytes;
	if (front != 0) {
		// Both headers end in the EtherType; the rest is zero.
		scratch_.assign(front + bytes.size(), 0);
		scratch_[front - 2] = static_cast<std::uint8_t>(ether_type >> 8);
		scratch_[front - 1] = static_cast<std::uint8_t>(ether_type);
		std::copy(bytes.begin(), bytes.end(),
			  scratch_.begin() + static_cast<std::ptrdiff_t>(front));
		stored = scratch_;
	}

	pcap_pkthdr head{};
	head.ts.tv_sec = time.tv_sec;
	head.ts.tv_usec = time.tv_nsec / 1000;
	head.caplen = static_cast<bpf_u_int32>(stored.size());
	head.len = static_cast<bpf_u_int32>(front + length);
	pcap_dump(reinterpret_cast<u_char *>(dumper_), &head, stored.data());
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
