// SPDX-License-Identifier: GPL-2.0-only
// The word's page cannot be touched: an access faults, is let through for one
// instruction (the processor's trap flag), and then the page is closed again.
#include "read_trap.h"

#include <signal.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

namespace {

constexpr greg_t kTrapFlag = 0x100;

// On pages of its own: the handlers use it while the word's page is closed.
struct alignas(4096) State {
	std::function<void()> after;
	uintptr_t word;
	bool touched;
	struct sigaction old_segv, old_trap;
};
State g_state;

uintptr_t page_size()
{
	return static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
}

void set_page(int protection)
{
	if (mprotect(reinterpret_cast<void *>(g_state.word & ~(page_size() - 1)), page_size(),
		     protection))
		abort();
}

void on_fault(int, siginfo_t *info, void *context)
{
	const auto at = reinterpret_cast<uintptr_t>(info->si_addr);
	if ((at ^ g_state.word) & ~(page_size() - 1)) {
		// A fault like any other: it comes again, and ends the program.
		sigaction(SIGSEGV, &g_state.old_segv, nullptr);
		return;
	}
	g_state.touched = at == g_state.word;
	set_page(PROT_READ | PROT_WRITE);
	static_cast<ucontext_t *>(context)->uc_mcontext.gregs[REG_EFL] |= kTrapFlag;
}

void on_trap(int, siginfo_t *, void *context)
{
	static_cast<ucontext_t *>(context)->uc_mcontext.gregs[REG_EFL] &= ~kTrapFlag;
	if (g_state.touched)
		g_state.after();
	set_page(PROT_NONE);
}

void handle(int signal, void (*handler)(int, siginfo_t *, void *), struct sigaction *old)
{
	struct sigaction action = {};
	action.sa_sigaction = handler;
	action.sa_flags = SA_SIGINFO;
	sigaction(signal, &action, old);
}

} // namespace

ReadTrap::ReadTrap(const void *word, std::function<void()> after)
{
	g_state.word = reinterpret_cast<uintptr_t>(word);
	g_state.after = std::move(after);
	handle(SIGSEGV, on_fault, &g_state.old_segv);
	handle(SIGTRAP, on_trap, &g_state.old_trap);
	set_page(PROT_NONE);
}

ReadTrap::~ReadTrap()
{
	set_page(PROT_READ | PROT_WRITE);
	sigaction(SIGSEGV, &g_state.old_segv, nullptr);
	sigaction(SIGTRAP, &g_state.old_trap, nullptr);
	g_state.after = nullptr;
}
