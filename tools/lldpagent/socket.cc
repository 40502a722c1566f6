/* SPDX-License-Identifier: GPL-2.0 */
#include "socket.h"

#include "mox_packet.h"

#include <arpa/inet.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace lldp {
namespace {

// The link-layer address, as the kernel's linux/if_packet.h has it.
struct LinkAddress {
    std::uint16_t family;
    std::uint16_t protocol; // network order
    std::uint32_t ifindex;
    std::uint16_t hardware_type;
    std::uint8_t packet_type;
    std::uint8_t address_length;
    std::uint8_t address[8];
};
static_assert(sizeof(LinkAddress) == 20);

// An option that Linux's own packet sockets answer and those of mox_ef_socket refuse.
constexpr int linux_packet_version = 10;

[[noreturn]] void fail(const std::string& what, const std::string& remedy = {})
{
    std::string text = what + ": " + std::strerror(errno);
    throw SystemError(remedy.empty() ? text : text + " (" + remedy + ")");
}

[[noreturn]] void fail_to_open()
{
    if (errno == EAFNOSUPPORT)
        fail("cannot open a socket of family 17", "is mox_ef_socket.ko loaded?");
    if (errno == EINVAL)
        fail("cannot open a socket of family 17",
             std::string("the working directory must not lie below ") + MOX_VSD_PREFIX + "N, N other than 0");
    if (errno == EPERM)
        fail("cannot open a socket of family 17", "mox_ef_socket asks for no privilege: is it Linux's own family 17?");
    fail("cannot open a socket of family 17");
}

void set_option(Calls& calls, int fd, int option, const void* value, std::size_t length, const char* what)
{
    if (calls.setsockopt(fd, MOX_SOL_PACKET, option, value, static_cast<socklen_t>(length)) != 0)
        fail(std::string("cannot set ") + what);
}

void set_number(Calls& calls, int fd, int option, std::uint32_t value, const char* what)
{
    set_option(calls, fd, option, &value, sizeof(value), what);
}

/**
 * Adds values of one rule type. The elements follow the head at byte 6, where no 4-byte number is aligned: that is why
 * they are copied, and no structure is laid over them.
 */
template <typename Element>
void add_rule(Calls& calls, int fd, std::uint16_t type, const std::vector<Element>& values, const char* what)
{
    mox_packet_rule head{type, sizeof(Element), static_cast<std::uint16_t>(values.size())};
    static_assert(sizeof(head) == 6);
    Bytes record(sizeof(head) + values.size() * sizeof(Element));
    std::memcpy(record.data(), &head, sizeof(head));
    std::memcpy(record.data() + sizeof(head), values.data(), values.size() * sizeof(Element));
    set_option(calls, fd, MOX_PACKET_ADD_RULE, record.data(), record.size(), what);
}

} // namespace

int Calls::socket(int family, int type, int protocol) { return ::socket(family, type, protocol); }

int Calls::bind(int fd, const sockaddr* address, socklen_t length) { return ::bind(fd, address, length); }

int Calls::getsockname(int fd, sockaddr* address, socklen_t* length) { return ::getsockname(fd, address, length); }

int Calls::setsockopt(int fd, int level, int option, const void* value, socklen_t length)
{
    return ::setsockopt(fd, level, option, value, length);
}

int Calls::getsockopt(int fd, int level, int option, void* value, socklen_t* length)
{
    return ::getsockopt(fd, level, option, value, length);
}

ssize_t Calls::recvmsg(int fd, msghdr* message, int flags) { return ::recvmsg(fd, message, flags); }

ssize_t Calls::sendmsg(int fd, const msghdr* message, int flags) { return ::sendmsg(fd, message, flags); }

int Calls::close(int fd) { return ::close(fd); }

Calls& Calls::system()
{
    static Calls calls;
    return calls;
}

Socket::Socket(Calls& calls) : calls_(calls)
{
    // No protocol: it would become a rule value of its own, and this way all rules stand in one place, below.
    fd_ = calls_.socket(MOX_PACKET_FAMILY, SOCK_RAW | SOCK_CLOEXEC, 0);
    if (fd_ < 0)
        fail_to_open();

    // Where family 17 is Linux's own, the options below would mean something else and succeed.
    int version = 0;
    socklen_t length = sizeof(version);
    if (calls_.getsockopt(fd_, MOX_SOL_PACKET, linux_packet_version, &version, &length) == 0) {
        calls_.close(std::exchange(fd_, -1));
        throw SystemError("family 17 belongs to Linux's own packet sockets: unload them and load mox_ef_socket.ko");
    }
}

Socket::~Socket()
{
    // Closing is all it takes to end: the rule goes, and with the last rule of its location the hook.
    if (fd_ >= 0)
        calls_.close(fd_);
}

Socket::Socket(Socket&& other) noexcept : calls_(other.calls_), fd_(std::exchange(other.fd_, -1)) {}

Senders::Senders(const std::vector<Port>& ports, Calls& calls) : calls_(calls)
{
    for (const Port& port : ports) {
        Socket socket(calls);

        // A sender names its way out once, by bind; sendmsg without a name then goes there. No protocol here either,
        // and no location ever: without one a socket captures nothing, so nothing piles up that nobody reads.
        LinkAddress address{};
        address.family = MOX_PACKET_FAMILY;
        address.ifindex = port.ifindex;
        if (calls.bind(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
            fail("cannot bind to interface " + std::to_string(port.ifindex) + " (" + port.name + ")",
                 errno == ENODEV ? "the platform has no interface of this index" : "");

        // Once bound, getsockname knows the port's MAC address: no other interface to the platform is needed.
        socklen_t length = sizeof(address);
        if (calls.getsockname(socket.fd(), reinterpret_cast<sockaddr*>(&address), &length) != 0)
            fail("cannot read the address of interface " + std::to_string(port.ifindex));
        Mac mac;
        if (address.address_length != mac.size())
            throw SystemError("interface " + std::to_string(port.ifindex) + " (" + port.name +
                              ") has no MAC address: it went away just now");
        std::memcpy(mac.data(), address.address, mac.size());
        macs_.push_back(mac);
        sockets_.emplace(port.ifindex, std::move(socket));
    }
}

int Senders::send(std::uint32_t ifindex, View frame)
{
    auto socket = sockets_.find(ifindex);
    if (socket == sockets_.end())
        return ENXIO;
    // SOCK_RAW: the frame begins with its MAC header. Without a control record the platform sends as it does by
    // default; one would name VLANs, WLAN ids or a source interface.
    iovec io{const_cast<std::uint8_t*>(frame.data()), frame.size()};
    msghdr message{};
    message.msg_iov = &io;
    message.msg_iovlen = 1;
    return calls_.sendmsg(socket->second.fd(), &message, 0) < 0 ? errno : 0;
}

Listener::Listener(const std::vector<Port>& ports, Calls& calls) : calls_(calls), socket_(calls)
{
    std::vector<std::uint32_t> indexes;
    for (const Port& port : ports)
        indexes.push_back(port.ifindex);

    // 1. The rules, while there is no location: a rule that is not complete yet would capture too much. Types are
    //    ANDed: LLDP frames, to the neighbours' group address, from our ports and no others (binding restricts
    //    nothing). The MAC address comes first: the first type is the one under which the hook looks a frame up, and
    //    the lowest number decides when other daemons want the same frame.
    add_rule(calls, fd(), PACKET_DEST_MAC_EQUAL, std::vector<Mac>{nearest_bridge}, "the rule for LLDP's address");
    add_rule(calls, fd(), PACKET_ETH_PROT_EQUAL, std::vector<std::uint16_t>{htons(ether_type)},
             "the rule for LLDP's EtherType");
    add_rule(calls, fd(), PACKET_SRC_INTF_EQUAL, indexes, "the rule for the ports");

    // 2. The control record, before the first frame can come: it tells the interface.
    set_number(calls, fd(), PACKET_CTRL_INFO, 1, "control records");

    // 3. Fetch: LLDP ends at the neighbour, so the platform must not flood it; other sockets that ask for it (a
    //    monitor) get it as well, which a trap would prevent.
    set_number(calls, fd(), PACKET_TREATMENT, PACKET_FETCH, "the treatment");

    // 4. The location last: with it the capture starts. RESV is where frames to reserved group addresses come by.
    set_number(calls, fd(), PACKET_LOCATION, PACKET_RESV_LOC, "the location");
}

std::optional<Received> Listener::receive(std::span<std::uint8_t> buffer)
{
    mox_packet_ctrl_info control{};
    iovec io{buffer.data(), buffer.size()};
    msghdr message{};
    message.msg_iov = &io;
    message.msg_iovlen = 1;
    // The record is stored raw, without a cmsghdr, and neither is the buffer's length looked at nor the record counted
    // in the length handed back: 48 bytes have to be there.
    static_assert(sizeof(control) == 48);
    message.msg_control = &control;
    message.msg_controllen = sizeof(control);

    ssize_t length = calls_.recvmsg(socket_.fd(), &message, MSG_DONTWAIT);
    if (length < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)
            return std::nullopt;
        fail("cannot receive");
    }
    return Received{buffer.first(static_cast<std::size_t>(length)), control.pkt_ifx};
}

} // namespace lldp
