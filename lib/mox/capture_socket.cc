/* SPDX-License-Identifier: GPL-2.0 */
#include "mox/capture_socket.h"

#include "mox/error.h"
#include "mox/names.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace mox {
namespace {

// The link-layer address of family 17, as the kernel lays it out. recvmsg reports a length of 26 for it, of
// which the last bytes belong to no field, so the buffer is as long as that.
struct LinkAddress {
    std::uint16_t family;
    std::uint16_t protocol; // network order
    std::int32_t ifindex;
    std::uint16_t hardware_type;
    std::uint8_t packet_type;
    std::uint8_t address_length;
    std::uint8_t address[8];
};
static_assert(sizeof(LinkAddress) == 20);
constexpr std::size_t received_name_size = 26;

// An option number that Linux's own packet sockets answer and ours refuse.
constexpr int linux_packet_version = 10;

[[noreturn]] void fail(const std::string& what, const std::string& remedy = {})
{
    int error = errno;
    std::string text = what + ": " + std::strerror(error);
    if (!remedy.empty())
        text += " (" + remedy + ")";
    throw SocketError(text, error);
}

[[noreturn]] void fail_to_open()
{
    switch (errno) {
    case EAFNOSUPPORT:
        fail("cannot open a capture socket", "nobody serves family 17: is mox_ef_socket.ko loaded?");
    case EINVAL:
        fail("cannot open a capture socket",
             std::string("a process whose working directory lies below ") + MOX_VSD_PREFIX +
                 "N, N other than 0, may not: change to another directory");
    case EPERM:
        fail("cannot open a capture socket",
             "mox_ef_socket asks for no privilege, so family 17 is served by Linux's own packet sockets: "
             "unload them and load mox_ef_socket.ko");
    default:
        fail("cannot open a capture socket");
    }
}

} // namespace

int SocketCalls::socket(int family, int type, int protocol) { return ::socket(family, type, protocol); }

int SocketCalls::bind(int fd, const sockaddr* address, socklen_t length) { return ::bind(fd, address, length); }

int SocketCalls::setsockopt(int fd, int level, int option, const void* value, socklen_t length)
{
    return ::setsockopt(fd, level, option, value, length);
}

int SocketCalls::getsockopt(int fd, int level, int option, void* value, socklen_t* length)
{
    return ::getsockopt(fd, level, option, value, length);
}

ssize_t SocketCalls::recvmsg(int fd, msghdr* message, int flags) { return ::recvmsg(fd, message, flags); }

int SocketCalls::close(int fd) { return ::close(fd); }

SocketCalls& SocketCalls::system()
{
    static SocketCalls calls;
    return calls;
}

std::uint32_t system_interface_index(const std::string& name)
{
    return if_nametoindex(name.c_str());
}

CaptureSocket::CaptureSocket(SocketKind kind, std::uint16_t protocol, SocketCalls& calls) : calls_(calls)
{
    int type = (kind == SocketKind::raw ? SOCK_RAW : SOCK_DGRAM) | SOCK_CLOEXEC;
    fd_ = calls_.socket(MOX_PACKET_FAMILY, type, htons(protocol));
    if (fd_ < 0)
        fail_to_open();

    // Linux's own packet sockets give other meanings to options 15 to 17 and would accept them.
    int version = 0;
    socklen_t length = sizeof(version);
    if (calls_.getsockopt(fd_, MOX_SOL_PACKET, linux_packet_version, &version, &length) == 0) {
        calls_.close(std::exchange(fd_, -1));
        errno = EPROTONOSUPPORT;
        fail("cannot open a capture socket",
             "family 17 is served by Linux's own packet sockets: unload them and load mox_ef_socket.ko");
    }
}

CaptureSocket::~CaptureSocket()
{
    if (fd_ >= 0)
        calls_.close(fd_);
}

CaptureSocket::CaptureSocket(CaptureSocket&& other) noexcept
    : calls_(other.calls_), fd_(std::exchange(other.fd_, -1)), control_info_(other.control_info_)
{
}

void CaptureSocket::bind(std::uint32_t ifindex, std::uint16_t protocol)
{
    LinkAddress address{};
    address.family = MOX_PACKET_FAMILY;
    address.protocol = htons(protocol);
    address.ifindex = static_cast<std::int32_t>(ifindex);
    if (calls_.bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0)
        return;

    std::string what = "cannot bind to interface " + std::to_string(ifindex);
    if (errno == ENODEV)
        fail(what, "the forwarding platform has no interface of this index");
    if (errno == EINVAL)
        fail(what, std::string("a process whose working directory lies below ") + MOX_VSD_PREFIX +
                       "N, N other than 0, may not: change to another directory");
    fail(what);
}

void CaptureSocket::set_location(std::uint32_t location)
{
    set_u32(PACKET_LOCATION, location,
            ("cannot set location " + std::string(location_name(location))).c_str());
}

void CaptureSocket::set_treatment(std::uint32_t treatment)
{
    set_u32(PACKET_TREATMENT, treatment,
            ("cannot set treatment " + std::string(treatment_name(treatment))).c_str());
}

void CaptureSocket::set_control_info(bool on)
{
    set_u32(PACKET_CTRL_INFO, on, "cannot switch control information");
    control_info_ = on;
}

void CaptureSocket::add_rule(const Rule& rule)
{
    change_rule(MOX_PACKET_ADD_RULE, rule, "cannot add rule ");
}

void CaptureSocket::delete_rule(const Rule& rule)
{
    change_rule(MOX_PACKET_DEL_RULE, rule, "cannot delete rule ");
}

void CaptureSocket::set_receive_buffer(int bytes)
{
    if (calls_.setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes)) != 0)
        fail("cannot set the receive buffer to " + std::to_string(bytes) + " bytes");
}

std::optional<Frame> CaptureSocket::receive(std::span<std::uint8_t> buffer, bool wait)
{
    mox_packet_ctrl_info control{};
    union {
        LinkAddress address;
        std::uint8_t bytes[received_name_size];
    } name{};
    iovec io{buffer.data(), buffer.size()};
    msghdr message{};
    message.msg_name = &name;
    message.msg_namelen = sizeof(name);
    message.msg_iov = &io;
    message.msg_iovlen = 1;
    message.msg_control = &control;
    message.msg_controllen = sizeof(control);

    // MSG_TRUNC as a flag asks for the frame's full length as the result.
    ssize_t length = calls_.recvmsg(fd_, &message, MSG_TRUNC | (wait ? 0 : MSG_DONTWAIT));
    if (length < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)
            return std::nullopt;
        fail("cannot receive");
    }

    Frame frame;
    frame.length = static_cast<std::size_t>(length);
    frame.bytes = buffer.first(std::min(frame.length, buffer.size()));
    frame.ifindex = static_cast<std::uint32_t>(name.address.ifindex);
    // The record comes without a control-message header, and the length that the kernel hands back counts such
    // headers only: that the record is there is known from having asked for it.
    if (control_info_)
        frame.control = control;
    return frame;
}

mox_packet_stats CaptureSocket::take_statistics()
{
    mox_packet_stats reading{};
    socklen_t length = sizeof(reading);
    if (calls_.getsockopt(fd_, MOX_SOL_PACKET, MOX_PACKET_STATISTICS, &reading, &length) != 0)
        fail("cannot read the socket's statistics");
    return reading;
}

void CaptureSocket::set_u32(int option, std::uint32_t value, const char* what)
{
    if (calls_.setsockopt(fd_, MOX_SOL_PACKET, option, &value, sizeof(value)) != 0)
        fail(what);
}

void CaptureSocket::change_rule(int option, const Rule& rule, const char* what)
{
    std::vector<std::uint8_t> record = rule.record();
    if (calls_.setsockopt(fd_, MOX_SOL_PACKET, option, record.data(), static_cast<socklen_t>(record.size())) != 0)
        fail(what + std::string(rule.type().full) + " with " + std::to_string(rule.count()) + " values");
}

void StatisticsSum::add(const mox_packet_stats& reading)
{
    packets_ += reading.packets;
    drops_ += reading.drops;
}

} // namespace mox
