// SPDX-License-Identifier: GPL-2.0
// Every allocation and every user copy of a send failing in turn, by the kernel's own failure injection.
#include <cerrno>
#include <cstring>

#include "support/failnth.h"
#include "support/send.h"

namespace {

using namespace vm;

using Failures = SendTest;

TEST_F(Failures, each_allocation_and_copy_of_a_send)
{
    if (!can_inject_failures())
        GTEST_SKIP() << "this kernel injects no failures; the checked one does";
    for (int type : {SOCK_RAW, SOCK_DGRAM}) {
        Socket socket(type);
        Send send;
        send.data = counting(60);
        send.with({}).to(lab::kPortA);
        uint32_t sent = 0, refused = 0;
        std::vector<std::string> lines;
        SendCounters before = SendCounters::of(socket);
        lab::clear_printk();
        ssize_t result = 0;
        int error = 0;
        int failures = with_each_failure(
            [&] {
                errno = 0;
                result = send.by(socket.fd());
                error = errno;
            },
            [&](bool) {
                if (result == 60)
                    ++sent;
                else
                    EXPECT_TRUE(error == ENOMEM || error == EFAULT || error == ENOBUFS) << std::strerror(error);
                refused += result != 60;
                EXPECT_EQ(lab::books().live, 0);
            });
        EXPECT_GT(failures, 0);
        lines = lab::printk_lines();
        SendCounters counters = SendCounters::of(socket) - before;
        EXPECT_EQ(counters.sent, sent);
        EXPECT_GE(counters.alloc_efbuff, 1u) << "one of the allocations is the efbuff's";
        EXPECT_LE(counters.alloc_efbuff + counters.pkt_copy, refused) << "the kernel refuses some before us";
        if (user_copies_can_fail()) {
            EXPECT_GE(counters.pkt_copy, 1u);
        }
        // Without its path buffer a sender counts as one of vsd 0, and goes on.
        EXPECT_TRUE(HasLine(lines, "Failed to kmalloc buf."));
    }
}

}  // namespace
