// SPDX-License-Identifier: GPL-2.0-only
#include "support/tap.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <system_error>

#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "moxlab.hpp"

namespace vm {

namespace {

void check(int result, const std::string &what)
{
	if (result < 0)
		throw std::system_error(errno, std::generic_category(), what);
}

ifreq request_of(const std::string &name)
{
	ifreq request{};
	std::strncpy(request.ifr_name, name.c_str(), sizeof request.ifr_name - 1);
	return request;
}

/// One of the ioctls that any socket takes for a device.
void device_ioctl(unsigned long number, ifreq request)
{
	int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
	check(fd, "socket");
	int result = ::ioctl(fd, number, &request);
	int error = errno;
	::close(fd);
	errno = error;
	check(result, std::string("ioctl of ") + request.ifr_name);
}

} // namespace

TapPort::TapPort(const std::string &name, unsigned mtu)
	: name_(name), fd_(::open("/dev/net/tun", O_RDWR | O_CLOEXEC))
{
	check(fd_, "/dev/net/tun");
	ifreq request = request_of(name_);
	request.ifr_flags = IFF_TAP | IFF_NO_PI;
	check(::ioctl(fd_, TUNSETIFF, &request), "TUNSETIFF " + name_);
	std::ofstream("/proc/sys/net/ipv6/conf/" + name_ + "/disable_ipv6") << "1\n";
	request = request_of(name_);
	request.ifr_mtu = int(mtu);
	device_ioctl(SIOCSIFMTU, request);
	set_up(true);
	ifindex_ = moxlab::Device().add_port(name_);
}

// The platform forgets a port whose device goes.
TapPort::~TapPort()
{
	::close(fd_);
}

void TapPort::set_up(bool up)
{
	ifreq request = request_of(name_);
	request.ifr_flags = up ? IFF_UP : 0;
	device_ioctl(SIOCSIFFLAGS, request);
}

std::optional<std::vector<uint8_t>> TapPort::read(int milliseconds)
{
	pollfd waiting{ fd_, POLLIN, 0 };
	if (::poll(&waiting, 1, milliseconds) != 1)
		return std::nullopt;
	std::vector<uint8_t> frame(70000);
	ssize_t length = ::read(fd_, frame.data(), frame.size());
	check(int(length), "read of " + name_);
	frame.resize(size_t(length));
	return frame;
}

void TapPort::write(const std::vector<uint8_t> &frame)
{
	check(int(::write(fd_, frame.data(), frame.size())), "write of " + name_);
}

} // namespace vm
