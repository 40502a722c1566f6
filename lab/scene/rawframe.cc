/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * A station that sends single frames, or records what it gets: the other end of a TAP device is its wire. In a kernel
 * whose packet sockets are the capture sockets this is how a program gets a frame of its own making onto a port, and
 * how the bytes that leave by a port come into a file that tcpdump reads.
 */
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace {

struct KnownFrame {
	std::string_view name;
	std::string_view what;
	std::string_view hex; // blanks are left out; padded to the shortest Ethernet frame
};

#define STATION "020000000301 "

constexpr KnownFrame known_frames[] = {
	{ "lldp", "LLDP: chassis 02:00:00:00:03:01, port eth0, system switch",
	  "0180c200000e " STATION
	  "88cc 0207 04 020000000301 0405 05 65746830 0602 0078 0a06 737769746368 0000" },
	{ "eapol-start", "EAPOL-Start, as a supplicant opens",
	  "0180c2000003 " STATION "888e 01 01 0000" },
	{ "eapol-logoff", "EAPOL-Logoff", "0180c2000003 " STATION "888e 01 02 0000" },
	{ "bpdu", "spanning tree: a configuration BPDU of root 8000.020000000301",
	  "0180c2000000 " STATION
	  "0026 424203 0000 00 00 00 8000020000000301 00000000 8000020000000301 8001 0000 1400 0200 "
	  "0f00" },
};
#undef STATION

constexpr std::size_t shortest_frame = 60, longest_frame = 1514, header = 14;

int usage(std::FILE *out, int status)
{
	std::fputs(
		"usage: rawframe TAP FRAME...\n"
		"       rawframe --record FILE TAP\n\n"
		"Sends frames into the port whose device is the TAP device TAP (made with: ip tuntap add dev TAP mode "
		"tap).\nWith --record holds the device, whose link is up meanwhile, and writes what leaves by the port to "
		"the pcap\nfile FILE until it is ended.\n"
		"FRAME is hexadecimal from the destination address on, or one of:\n",
		out);
	for (const KnownFrame &each : known_frames)
		std::fprintf(out, "  %-14.*s %.*s\n", static_cast<int>(each.name.size()),
			     each.name.data(), static_cast<int>(each.what.size()),
			     each.what.data());
	return status;
}

int nibble(char c)
{
	if (c >= '0' && c <= '9')
		return c - '0';
	c |= 0x20;
	return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

/** The frame's bytes, padded; empty when the text is no frame. */
std::vector<std::uint8_t> frame_of(std::string_view text)
{
	for (const KnownFrame &each : known_frames)
		if (each.name == text)
			text = each.hex;

	std::vector<std::uint8_t> bytes;
	int high = -1;
	for (char c : text) {
		if (c == ' ')
			continue;
		int value = nibble(c);
		if (value < 0)
			return {};
		if (high >= 0)
			bytes.push_back(static_cast<std::uint8_t>(high << 4 | value));
		high = high < 0 ? value : -1;
	}
	if (high >= 0 || bytes.size() < header || bytes.size() > longest_frame)
		return {};
	if (bytes.size() < shortest_frame)
		bytes.resize(shortest_frame);
	return bytes;
}

int open_tap(const char *name)
{
	ifreq request{};
	if (std::strlen(name) >= sizeof(request.ifr_name)) {
		errno = ENODEV;
		return -1;
	}
	std::strcpy(request.ifr_name, name);
	request.ifr_flags = IFF_TAP | IFF_NO_PI;
	int fd = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
	if (fd >= 0 && ioctl(fd, TUNSETIFF, &request) != 0) {
		int error = errno;
		close(fd);
		errno = error;
		return -1;
	}
	return fd;
}

bool send_frame(int fd, const char *tap, const std::vector<std::uint8_t> &frame)
{
	if (write(fd, frame.data(), frame.size()) == static_cast<ssize_t>(frame.size()))
		return true;
	std::fprintf(stderr, "rawframe: cannot send on %s: %s (is the device up?)\n", tap,
		     std::strerror(errno));
	return false;
}

std::vector<std::uint8_t> frame_or_complaint(const char *text)
{
	std::vector<std::uint8_t> frame = frame_of(text);
	if (frame.empty())
		std::fprintf(
			stderr,
			"rawframe: \"%s\" is no frame: a name, or %zu to %zu bytes in hexadecimal\n",
			text, header, longest_frame);
	return frame;
}

// A pcap file of Ethernet frames: pcap-savefile(5).
struct PcapHeader {
	std::uint32_t magic = 0xa1b2c3d4;
	std::uint16_t major = 2, minor = 4;
	std::uint32_t zone = 0, accuracy = 0, snap = 65535, link_type = 1;
};
struct PcapRecord {
	std::uint32_t seconds, microseconds, captured, length;
};

bool write_record(int file, const std::uint8_t *frame, std::size_t length)
{
	timespec now{};
	clock_gettime(CLOCK_REALTIME, &now);
	auto size = static_cast<std::uint32_t>(length);
	PcapRecord record{ static_cast<std::uint32_t>(now.tv_sec),
			   static_cast<std::uint32_t>(now.tv_nsec / 1000), size, size };
	// In one call: a reader of the file never sees half a record.
	iovec parts[] = { { &record, sizeof(record) },
			  { const_cast<std::uint8_t *>(frame), length } };
	return writev(file, parts, 2) == static_cast<ssize_t>(sizeof(record) + length);
}

int record(int fd, const char *tap, const char *path)
{
	int file = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
	PcapHeader opening;
	if (file < 0 ||
	    write(file, &opening, sizeof(opening)) != static_cast<ssize_t>(sizeof(opening))) {
		std::fprintf(stderr, "rawframe: cannot write %s: %s\n", path, std::strerror(errno));
		return 1;
	}
	std::uint8_t frame[longest_frame + 8]; // two VLAN tags
	ssize_t length;
	while ((length = read(fd, frame, sizeof(frame))) >= 0 &&
	       write_record(file, frame, static_cast<std::size_t>(length)))
		;
	std::fprintf(stderr, "rawframe: cannot record %s: %s\n", tap, std::strerror(errno));
	return 1;
}

} // namespace

int main(int argc, char **argv)
{
	if (argc == 2 &&
	    (std::string_view(argv[1]) == "--help" || std::string_view(argv[1]) == "-h"))
		return usage(stdout, 0);
	if (argc < 3)
		return usage(stderr, 2);
	bool recording = std::string_view(argv[1]) == "--record";
	if (recording && argc != 4)
		return usage(stderr, 2);

	const char *tap = argv[recording ? 3 : 1];
	std::vector<std::vector<std::uint8_t>> frames;
	for (int i = 2; i < argc && !recording; ++i) {
		frames.push_back(frame_or_complaint(argv[i]));
		if (frames.back().empty())
			return usage(stderr, 2);
	}

	// Opening a device that does not exist would create one, which is not a port.
	if (if_nametoindex(tap) == 0) {
		std::fprintf(stderr,
			     "rawframe: there is no device %s: ip tuntap add dev %s mode tap\n",
			     tap, tap);
		return 1;
	}
	int fd = open_tap(tap);
	if (fd < 0) {
		std::fprintf(stderr,
			     "rawframe: cannot use %s: %s (is it a TAP device, and not in use?)\n",
			     tap, std::strerror(errno));
		return 1;
	}
	if (recording)
		return record(fd, tap, argv[2]);
	int status = 0;
	for (const auto &frame : frames)
		if (!send_frame(fd, tap, frame))
			status = 1;
	close(fd);
	return status;
}
