/* SPDX-License-Identifier: GPL-2.0-only */
/* Capture files as libpcap reads them back. */
#ifndef STORED_FILE_H
#define STORED_FILE_H

#include <gtest/gtest.h>
#include <pcap/pcap.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

/** An empty file that is removed at the end. */
class TemporaryFile {
public:
	TemporaryFile()
	{
		char name[] = "/tmp/moxcap_test_XXXXXX";
		int fd = mkstemp(name);
		EXPECT_GE(fd, 0);
		close(fd);
		path = name;
	}
	~TemporaryFile() { std::filesystem::remove(path); }
	TemporaryFile(const TemporaryFile &) = delete;
	TemporaryFile &operator=(const TemporaryFile &) = delete;

	std::string path;
};

struct StoredFrame {
	pcap_pkthdr head;
	std::vector<std::uint8_t> bytes;
};

struct StoredFile {
	int link_type = -1;
	int snap = 0;
	std::vector<StoredFrame> frames;
};

inline StoredFile read_back(const std::string &path)
{
	StoredFile file;
	char error[PCAP_ERRBUF_SIZE] = "";
	pcap_t *pcap = pcap_open_offline(path.c_str(), error);
	EXPECT_NE(pcap, nullptr) << error;
	if (!pcap)
		return file;
	file.link_type = pcap_datalink(pcap);
	file.snap = pcap_snapshot(pcap);
	pcap_pkthdr *head;
	const u_char *bytes;
	int result;
	while ((result = pcap_next_ex(pcap, &head, &bytes)) == 1)
		file.frames.push_back(
			{ *head, std::vector<std::uint8_t>(bytes, bytes + head->caplen) });
	EXPECT_EQ(result, PCAP_ERROR_BREAK)
		<< pcap_geterr(pcap); // which stands for the end of the file
	pcap_close(pcap);
	return file;
}

#endif
