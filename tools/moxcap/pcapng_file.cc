/* SPDX-License-Identifier: GPL-2.0-only */
#include "pcapng_file.h"

#include "format.h"
#include "mox/names.h"

#include <fcntl.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

namespace moxcap {
namespace {

enum BlockType : std::uint32_t {
	kInterfaceBlock = 1,
	kStatisticsBlock = 5,
	kPacketBlock = 6,
	kSectionBlock = 0x0a0d0d0a,
};

constexpr std::uint32_t kByteOrder = 0x1a2b3c4d;
constexpr std::uint16_t kMajor = 1, kMinor = 0;
constexpr std::uint64_t kUnknownLength = ~std::uint64_t{ 0 };

constexpr std::uint16_t kComment = 1; // in every block

constexpr std::uint16_t kHardware = 2, kSystem = 3, kApplication = 4; // of a section
constexpr std::uint16_t kName = 2, kDescription = 3, kResolution = 9,
			kFilter = 11;             // of an interface
constexpr std::uint16_t kFlags = 2, kDropped = 4; // of a packet
constexpr std::uint16_t kStart = 2, kEnd = 3, kReceived = 4, kInterfaceDropped = 5; // of statistics

constexpr std::uint8_t kNanoseconds = 9; // as a resolution: 10 to the power of -9
constexpr std::uint8_t kTextFilter = 0;  // a filter that is a text
constexpr std::uint32_t kUnknownDirection = 0, kInbound = 1, kOutbound = 2;

constexpr std::uint16_t kEthernetHeader = 14;

std::uint64_t nanoseconds(const timespec &time)
{
	return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 +
	       static_cast<std::uint64_t>(time.tv_nsec);
}

/** LEV2 for PACKET_LEV2_LOC. */
std::string short_location(std::uint32_t location)
{
	constexpr std::string_view end = "_LOC";
	std::string_view name = mox::without_prefix(mox::location_name(location));
	if (name.ends_with(end))
		name.remove_suffix(end.size());
	return std::string(name);
}

/** Frames at LOCAL are about to leave; frames at WLAN come in or leave, which nothing distinguishes. */
std::uint32_t direction(std::uint32_t location)
{
	switch (location) {
	case PACKET_LOCAL_LOC:
		return kOutbound;
	case PACKET_WLAN_LOC:
		return kUnknownDirection;
	default:
		return kInbound;
	}
}

std::string treatment_alias(std::uint32_t treatment)
{
	for (const mox::Name &each : mox::treatments())
		if (each.value == treatment)
			return std::string(each.alias());
	return std::to_string(treatment);
}

void add_number(std::string &text, const char *name, std::uint32_t value)
{
	if (value != 0)
		text += std::string(", ") + name + " " + std::to_string(value);
}

void add_bits(std::string &text, const char *name, std::uint32_t value)
{
	if (value == 0)
		return;
	char number[16];
	std::snprintf(number, sizeof(number), " 0x%x", value);
	text += std::string(", ") + name + number;
}

} // namespace

CaptureDescription describe_machine()
{
	CaptureDescription description;
	utsname name{};
	if (uname(&name) == 0) {
		description.hardware = name.machine;
		description.system = std::string(name.sysname) + " " + name.release + " " +
				     name.version;
	}
	// The name of the board, where there is a device tree; it ends in a NUL.
	std::ifstream model("/proc/device-tree/model");
	std::string board;
	if (std::getline(model, board, '\0') && !board.empty())
		description.hardware = board + " (" + description.hardware + ")";
	description.application = "moxcap of mox_ef_socket";
	return description;
}

std::string comment_text(std::uint32_t treatment, const ReceivedFrame &frame)
{
	std::string text = "treatment " + treatment_alias(treatment);
	if (!frame.control)
		return text;
	const mox_packet_ctrl_info &control = *frame.control;
	text += format_vlan(control);
	add_number(text, "wlan-id", control.wlan_id);
	add_number(text, "ap-wlan-id", control.ap_wlan_id);
	add_number(text, "radio", control.radio_id);
	if (control.flags != 0)
		text += ", flags " + format_flags(control.flags);
	// What is the same for nearly every frame is left out.
	if (control.pkt_origifx != control.pkt_ifx)
		add_number(text, "original interface", control.pkt_origifx);
	if (control.pkt_l2ifx != control.pkt_ifx)
		add_number(text, "layer-2 interface", control.pkt_l2ifx);
	if (control.l2_len != kEthernetHeader)
		add_number(text, "layer-2 header length", control.l2_len);
	add_bits(text, "word28", control.word28);
	add_bits(text, "half38", control.half38);
	add_number(text, "proxy-capture", control.proxy_capture);
	return text;
}

PcapngFile::PcapngFile(const std::string &path, Layout layout, int snap, bool vlan_tags,
		       const CaptureDescription &description)
	: CaptureFile(path), storer_(layout, vlan_tags),
	  link_type_(static_cast<std::uint16_t>(link_type(layout))),
	  snap_(static_cast<std::uint32_t>(snap) +
		static_cast<std::uint32_t>(storer_.most_added())),
	  description_(description)
{
	if (path == "-") {
		fd_ = STDOUT_FILENO;
	} else {
		fd_ = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
		if (fd_ < 0)
			throw FileError("cannot write a capture file: " + path + ": " +
					std::strerror(errno));
		close_ = true;
	}
	try {
		write_section();
	} catch (...) {
		if (close_)
			close(fd_);
		throw;
	}
}

PcapngFile::~PcapngFile()
{
	if (close_)
		close(fd_);
}

void PcapngFile::write(const FileFrame &frame)
{
	StoredFrame stored = storer_.store(frame.received);
	last_ = interface_of(frame);
	Interface &from = interfaces_[last_];
	++from.frames;
	from.dropped += frame.dropped;

	block_.begin(kPacketBlock);
	block_.u32(last_);
	block_.time(nanoseconds(frame.time));
	block_.u32(static_cast<std::uint32_t>(stored.bytes.size()));
	block_.u32(static_cast<std::uint32_t>(stored.length));
	block_.padded(stored.bytes);
	std::string comment = comment_text(description_.treatment, frame.received);
	if (last_ == kMostInterfaces)
		comment = "interface " + std::string(frame.interface) + ", " + comment;
	block_.text_option(kComment, comment);
	block_.u32_option(kFlags, direction(description_.location));
	if (frame.dropped != 0)
		block_.u64_option(kDropped, frame.dropped);
	write_block();
}

void PcapngFile::finish(const timespec &end, std::uint64_t dropped)
{
	if (!interfaces_.empty())
		interfaces_[last_].dropped += dropped;
	for (std::size_t number = 0; number < interfaces_.size(); ++number) {
		const Interface &each = interfaces_[number];
		block_.begin(kStatisticsBlock);
		block_.u32(static_cast<std::uint32_t>(number));
		block_.time(nanoseconds(end));
		block_.time_option(kStart, each.first);
		block_.time_option(kEnd, nanoseconds(end));
		block_.u64_option(kReceived, each.frames + each.dropped);
		block_.u64_option(kInterfaceDropped, each.dropped);
		write_block();
	}
}

void PcapngFile::write_section()
{
	block_.begin(kSectionBlock);
	block_.u32(kByteOrder);
	block_.u16(kMajor);
	block_.u16(kMinor);
	block_.u64(kUnknownLength);
	if (!description_.hardware.empty())
		block_.text_option(kHardware, description_.hardware);
	if (!description_.system.empty())
		block_.text_option(kSystem, description_.system);
	if (!description_.application.empty())
		block_.text_option(kApplication, description_.application);
	write_block();
}

/** The number of the block of a frame's interface, which is written if it is a new one. */
std::uint32_t PcapngFile::interface_of(const FileFrame &frame)
{
	auto known = numbers_.find(frame.ifindex);
	if (known != numbers_.end())
		return known->second;

	auto number = static_cast<std::uint32_t>(numbers_.size());
	std::string name(frame.interface);
	std::string what = frame.ifindex == 0 ? "frames made by the device"
					      : "frames from " + name + " (interface " +
							std::to_string(frame.ifindex) + ")";
	if (number == kMostInterfaces) {
		name = "others";
		what = "frames from further interfaces, named in the comments";
	} else {
		numbers_.emplace(frame.ifindex, number);
	}
	if (number == interfaces_.size()) {
		write_interface(name, what);
		Interface &added = interfaces_.emplace_back();
		added.first = nanoseconds(frame.time);
	}
	return number;
}

void PcapngFile::write_interface(const std::string &name, const std::string &what)
{
	block_.begin(kInterfaceBlock);
	block_.u16(link_type_);
	block_.u16(0);
	block_.u32(snap_);
	block_.text_option(kName, name + " " + short_location(description_.location));
	block_.text_option(kDescription,
			   what + ", at " + std::string(mox::location_name(description_.location)));
	block_.u8_option(kResolution, kNanoseconds);
	if (!description_.rules.empty())
		block_.text_option(kFilter, kTextFilter, description_.rules);
	write_block();
}

void PcapngFile::write_block()
{
	std::span<const std::uint8_t> left = block_.end();
	while (!left.empty()) {
		ssize_t written = ::write(fd_, left.data(), left.size());
		if (written < 0 && errno == EINTR)
			continue;
		if (written < 0)
			fail_to_write(errno);
		left = left.subspan(static_cast<std::size_t>(written));
	}
}

} // namespace moxcap
