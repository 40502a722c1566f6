// SPDX-License-Identifier: GPL-2.0-only
// What the rounds of lab-bench share: figures as text and JSON, time, capture sockets, modules in and out.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "moxlab.hpp"

namespace bench {

constexpr int kFamily = 17;

/// One result. It is printed as a line for people, and as one of JSON behind "@@ ", which lab/vm/run keeps in its log
/// and does not show.
struct Figure {
	std::string round;  ///< "receive"
	std::string what;   ///< "hook, unwanted"
	std::string shape;  ///< of the rules; may be empty
	unsigned rules = 0; ///< how many; 0: does not apply
	double value = 0;
	std::string unit = "instructions";
};

void report(const Figure &figure);

/// The JSON line alone, where the text is printed otherwise.
void record(const Figure &figure);

[[noreturn]] void die(const std::string &what); ///< throws, with errno's text

void shell(const std::string &command); ///< throws when it fails

/// Family 17 has one owner at a time: this module, for as long as the object lives.
class Owner {
public:
	explicit Owner(const std::string &module);
	~Owner();
	Owner(const Owner &) = delete;

private:
	std::string module_;
};

/// A file descriptor that is closed with the object.
class Fd {
public:
	explicit Fd(int fd = -1) : fd_(fd) {}
	Fd(Fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
	Fd &operator=(Fd &&other) noexcept
	{
		std::swap(fd_, other.fd_);
		return *this;
	}
	~Fd();
	int get() const { return fd_; }
	void close();

private:
	int fd_;
};

/// Values of one type, as they are added to a rule by one call.
struct Item {
	uint16_t type;
	uint16_t width; ///< bytes of one value
	moxlab::Bytes values;
};

Fd open_socket(); ///< a raw socket of the family, with room for 1 MiB of received frames
moxlab::Bytes rule_record(const Item &item);
int add_item(int fd, const Item &item, bool add = true); ///< option 11 or 12: 0 or errno
void set_option(int fd, int option, uint32_t value);

/// A socket that copies what satisfies all items, at layer 2.
Fd listener(const std::vector<Item> &items);
/// The same, or none when a budget for rules does not allow it.
std::optional<Fd> listener_within_budget(const std::vector<Item> &items);

/// Receives and drops all that a socket has; how many frames.
unsigned drain(int fd);

void allow_many_files(unsigned count);

/// The stand-in platform without its book-keeping, as far as that can be switched off.
void quiet_platform(moxlab::Device &lab);

/// The interface's control block, without a device.
void make_interface(moxlab::Device &lab, uint32_t ifindex);

/// Nanoseconds of the guest's clock, which are instructions under lab/vm/run --icount.
uint64_t now_ns();
/// What two readings of it in a row differ by.
uint64_t clock_cost();

/// Bytes of the kernel's slab pages that do not come back by themselves.
double slab_bytes();

double median(std::vector<double> values);

/// A frame of 64 bytes or more of this EtherType.
moxlab::Bytes plain_frame(uint16_t ethertype, size_t length = 64);

} // namespace bench
