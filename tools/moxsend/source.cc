/* SPDX-License-Identifier: GPL-2.0-only */
#include "source.h"

namespace moxsend {

std::optional<SourceFrame> ListSource::next()
{
	if (at_ == frames_.size())
		return std::nullopt;
	return SourceFrame{ frames_[at_++], {} };
}

PcapSource::PcapSource(const std::string &path) : path_(path)
{
	open();
}

void PcapSource::open()
{
	char error[PCAP_ERRBUF_SIZE] = "";
	pcap_.reset(pcap_open_offline(path_.c_str(), error));
	if (!pcap_)
		throw FileError("cannot read the capture file \"" + path_ + "\": " + error);
	number_ = 0;

	int link_type = pcap_datalink(pcap_.get());
	if (link_type != DLT_EN10MB) {
		const char *name = pcap_datalink_val_to_name(link_type);
		throw FileError("\"" + path_ + "\" holds frames of link type " +
				(name ? std::string(name) : std::to_string(link_type)) +
				"; only Ethernet frames (EN10MB) can be sent");
	}
}

void PcapSource::rewind()
{
	if (path_ == "-")
		throw FileError("standard input can be read once only: write the frames to a file");
	open();
}

std::optional<SourceFrame> PcapSource::next()
{
	pcap_pkthdr *head;
	const u_char *bytes;
	int result = pcap_next_ex(pcap_.get(), &head, &bytes);
	if (result == PCAP_ERROR_BREAK) // the end of the file
		return std::nullopt;
	if (result != 1)
		throw FileError("\"" + path_ + "\" cannot be read behind frame " +
				std::to_string(number_) + ": " + pcap_geterr(pcap_.get()));
	++number_;
	SourceFrame frame{ { bytes, head->caplen }, {} };
	if (head->caplen < head->len)
		frame.defect = "frame " + std::to_string(number_) + " of \"" + path_ +
			       "\" was cut when it was captured: " + std::to_string(head->caplen) +
			       " of " + std::to_string(head->len) +
			       " bytes are there (capture with a longer snapshot length)";
	return frame;
}

} // namespace moxsend
