/* SPDX-License-Identifier: GPL-2.0 */
/*
 * The sockets of an LLDP agent: one that takes LLDP off the forwarding pipeline, and one for each port that sends out
 * of it. Everything that is particular to family 17 is here and in mox_packet.h; read socket.cc for the order in which
 * a daemon sets its options, and why.
 */
#ifndef LLDPAGENT_SOCKET_H
#define LLDPAGENT_SOCKET_H

#include "agent.h"

#include <sys/socket.h>
#include <sys/types.h>

#include <stdexcept>

namespace lldp {

/** A system call that failed, with a remedy where there is one. */
class SystemError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/** The system calls made here; tests put their own in place. Results and errno as in libc. */
class Calls {
public:
    virtual ~Calls() = default;
    virtual int socket(int family, int type, int protocol);
    virtual int bind(int fd, const sockaddr* address, socklen_t length);
    virtual int getsockname(int fd, sockaddr* address, socklen_t* length);
    virtual int setsockopt(int fd, int level, int option, const void* value, socklen_t length);
    virtual int getsockopt(int fd, int level, int option, void* value, socklen_t* length);
    virtual ssize_t recvmsg(int fd, msghdr* message, int flags);
    virtual ssize_t sendmsg(int fd, const msghdr* message, int flags);
    virtual int close(int fd);

    /** The operating system's. */
    static Calls& system();
};

/** A descriptor that closes itself. */
class Socket {
public:
    /** Opens a SOCK_RAW socket of family 17 without a protocol. Throws SystemError, also when Linux's own answers. */
    explicit Socket(Calls& calls);
    ~Socket();
    Socket(Socket&& other) noexcept;
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    Socket& operator=(Socket&&) = delete;

    int fd() const { return fd_; }

private:
    Calls& calls_;
    int fd_;
};

/** Sends out of the ports. */
class Senders : public Wire {
public:
    /** Throws SystemError, for instance for an index that the platform does not know. */
    explicit Senders(const std::vector<Port>& ports, Calls& calls = Calls::system());

    /** The address of each port, in the order of the ports. */
    const std::vector<Mac>& macs() const { return macs_; }

    int send(std::uint32_t ifindex, View frame) override;

private:
    Calls& calls_;
    std::map<std::uint32_t, Socket> sockets_;
    std::vector<Mac> macs_;
};

/** A frame that came in. */
struct Received {
    View frame;            /**< what fitted into the buffer, that is: at most its size */
    std::uint32_t ifindex; /**< the platform's index of the interface it came in on */
};

/** Takes the LLDP frames of the ports off the pipeline, from its making to its end. */
class Listener {
public:
    explicit Listener(const std::vector<Port>& ports, Calls& calls = Calls::system());

    /** For poll. */
    int fd() const { return socket_.fd(); }

    /** The next frame, stored in buffer; nothing when there is none now. Throws SystemError. */
    std::optional<Received> receive(std::span<std::uint8_t> buffer);

private:
    Calls& calls_;
    Socket socket_;
};

} // namespace lldp

#endif
