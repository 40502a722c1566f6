// SPDX-License-Identifier: GPL-2.0-only
// A real network device as a port of the platform: what leaves by it is read here, what is written here comes in by it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vm {

class TapPort {
public:
	/// The device of that name, up, a port, and silent: the guest's own stack sends nothing by it.
	explicit TapPort(const std::string &name, unsigned mtu = 1500);
	~TapPort();
	TapPort(const TapPort &) = delete;

	uint32_t ifindex() const { return ifindex_; }
	/// The next frame that left; nothing after the time.
	std::optional<std::vector<uint8_t>> read(int milliseconds = 1000);
	std::optional<std::vector<uint8_t>> read_now() { return read(0); }
	/// A frame comes in.
	void write(const std::vector<uint8_t> &frame);
	void set_up(bool up);

private:
	std::string name_;
	int fd_;
	uint32_t ifindex_ = 0;
};

} // namespace vm
