/* SPDX-License-Identifier: GPL-2.0 */
/* moxcap: captures frames from the forwarding platform. */
#include "capture.h"
#include "mox/error.h"
#include "format.h"
#include "options.h"

#include <net/if.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace {

volatile std::sig_atomic_t stop_requested;

void request_stop(int)
{
    stop_requested = 1;
}

/** Blocks the ending signals but where the capture waits, so that none is lost between a test and the wait. */
sigset_t catch_ending_signals()
{
    sigset_t ending, before;
    sigemptyset(&ending);
    for (int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action{};
        action.sa_handler = request_stop;
        sigaction(number, &action, nullptr);
        sigaddset(&ending, number);
    }
    sigprocmask(SIG_BLOCK, &ending, &before);
    for (int number : {SIGINT, SIGTERM, SIGHUP})
        sigdelset(&before, number);
    return before;
}

std::string interface_name(std::uint32_t index)
{
    char name[IF_NAMESIZE];
    return if_indextoname(index, name) ? name : "";
}

/** One write for the whole text: live, and not torn apart by others that write to the same terminal. */
void print_to(int fd, const std::string& text)
{
    std::size_t done = 0;
    while (done < text.size()) {
        ssize_t written = write(fd, text.data() + done, text.size() - done);
        if (written < 0 && errno != EINTR) {
            stop_requested = 1; // whoever was reading has gone
            return;
        }
        done += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
}

} // namespace

int main(int argc, char** argv)
{
    moxcap::Options options;
    if (auto ending = moxcap::read_options(argc, argv, mox::system_interface_index, options)) {
        std::fputs(ending->text.c_str(), ending->status == 0 ? stdout : stderr);
        return ending->status;
    }

    // With the capture file on standard output the text has to go elsewhere.
    int text_fd = options.file == "-" ? STDERR_FILENO : STDOUT_FILENO;
    signal(SIGPIPE, SIG_IGN);
    sigset_t waiting = catch_ending_signals();
    try {
        mox::CaptureSocket socket = moxcap::prepare_socket(options);
        moxcap::Recorder recorder(options, interface_name,
                                  [text_fd](const std::string& text) { print_to(text_fd, text); });
        socket.set_location(options.location);
        if (!options.quiet)
            print_to(STDERR_FILENO, moxcap::format_opening(options));
        moxcap::Counters counters =
            moxcap::run_capture(socket, options, recorder, stop_requested, waiting);
        if (!options.quiet)
            print_to(STDERR_FILENO, moxcap::format_summary(options.label, counters));
        if (options.counters)
            print_to(text_fd, moxcap::format_counters(options.label, counters));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "moxcap: %s\n", error.what());
        return moxcap::system_status;
    }
    return 0;
}
