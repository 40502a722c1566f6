/* SPDX-License-Identifier: MIT */
/*
 * A socket of family 17: opening, naming its interface, sending. CaptureSocket adds receiving, so that one socket can
 * receive requests and send answers.
 *
 *     mox::PacketSocket socket(mox::SocketKind::kRaw);
 *     socket.send({frame, mox::SendAddress{mox::system_interface_index("port1")}});
 *
 * Unless said otherwise functions throw SocketError when the kernel refuses. A socket without a location receives
 * nothing: a program that only sends need not read from it.
 */
#ifndef MOX_PACKET_SOCKET_H
#define MOX_PACKET_SOCKET_H

#include "mox/export.h"
#include "mox/send.h"

#include <sys/socket.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace mox {

/** The system calls that a packet socket makes; tests replace them. Results and errno as in libc. */
class MOX_API SocketCalls {
public:
	virtual ~SocketCalls() = default;
	virtual int socket(int family, int type, int protocol);
	virtual int bind(int fd, const sockaddr *address, socklen_t length);
	virtual int getsockname(int fd, sockaddr *address, socklen_t *length);
	virtual int setsockopt(int fd, int level, int option, const void *value, socklen_t length);
	virtual int getsockopt(int fd, int level, int option, void *value, socklen_t *length);
	virtual ssize_t recvmsg(int fd, msghdr *message, int flags);
	/** Without a time limit. */
	virtual int recvmmsg(int fd, mmsghdr *messages, unsigned count, int flags);
	virtual ssize_t sendmsg(int fd, const msghdr *message, int flags);
	virtual int close(int fd);

	/** The operating system's. */
	static SocketCalls &system();
};

enum class SocketKind {
	kRaw,      /**< frames with their layer-2 header */
	kDatagram, /**< frames without it */
};

/**
 * The link-layer address of family 17, as the kernel lays it out. A send ignores hardware_type and
 * packet_type.
 */
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

/** Index of an interface name, 0 when there is none. */
MOX_API std::uint32_t system_interface_index(const std::string &name);

/** An open descriptor of family 17 that another part, or another process, opened. */
struct Adopted {
	int fd;
};

class MOX_API PacketSocket {
public:
	/**
     * Opens a socket. protocol is an EtherType in host order; other than 0 it becomes the socket's first rule
     * (3 stands for any). Throws also when another module than mox_ef_socket has family 17.
     */
	explicit PacketSocket(SocketKind kind, std::uint16_t protocol = 0,
			      SocketCalls &calls = SocketCalls::system());
	/**
     * Takes over an open socket with all that is set on it: its rules, location and options stay. Throws SocketError
     * with EPROTONOSUPPORT for a descriptor that is no socket of mox_ef_socket; the descriptor stays the caller's then.
     */
	explicit PacketSocket(Adopted adopted, SocketCalls &calls = SocketCalls::system());
	~PacketSocket();
	PacketSocket(PacketSocket &&other) noexcept;
	PacketSocket(const PacketSocket &) = delete;
	PacketSocket &operator=(const PacketSocket &) = delete;
	PacketSocket &operator=(PacketSocket &&) = delete;

	/** For poll; this object keeps the ownership. */
	int fd() const { return fd_; }
	/** Ends the ownership and returns the descriptor, which stays open. Only the destructor may follow. */
	int release();
	/** The interface that the socket is bound to, 0: none. */
	std::uint32_t bound_to() const { return bound_to_; }
	SocketKind kind() const { return kind_; }

	/**
     * Names the socket's interface (0: all) and, with a protocol other than 0, adds an EtherType rule. The
     * interface has to exist on the platform. Frames that are sent without an address leave by it. Binding does
     * not narrow a capture to the interface: that takes a PACKET_SRC_INTF_EQUAL rule.
     */
	void bind(std::uint32_t ifindex, std::uint16_t protocol = 0);

	/** MAC address of the interface that the socket is bound to; nothing while it is bound to none. */
	std::optional<MacAddress> interface_mac() const;

	/**
     * Passes one frame to the platform; does not wait for it to leave. A frame that the platform drops is a
     * SocketError with ENETUNREACH. Success means that the platform accepted the frame, not that it sent it.
     */
	void send(const SendRequest &request);
	/** The same without an exception, for callers that go on after a failure: 0, or the errno of the send. */
	int try_send(const SendRequest &request);

protected:
	SocketCalls &calls() const { return calls_; }

private:
	[[noreturn]] void fail_to_send(const SendRequest &request, int error) const;

	SocketCalls &calls_;
	int fd_ = -1;
	SocketKind kind_ = SocketKind::kRaw;
	std::uint32_t bound_to_ = 0;
};

/** Throws a SocketError with errno: "WHAT: reason (REMEDY)". */
[[noreturn]] MOX_API void throw_socket_error(const std::string &what,
					     const std::string &remedy = {});

} // namespace mox

#endif
