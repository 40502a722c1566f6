// SPDX-License-Identifier: GPL-2.0-only
#include "worker.h"

#include <cstdio>
#include <exception>

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "cases.h"
#include "corpus.h"
#include "kcov.h"
#include "support/fixture.h"

namespace fuzz {

namespace {

constexpr unsigned kNoUser = 65534;

/// Gives up root; what is left are the capabilities of the mask.
bool drop_privileges(uint64_t keep)
{
	__user_cap_header_struct head{ _LINUX_CAPABILITY_VERSION_3, 0 };
	__user_cap_data_struct data[2] = {};
	for (int half = 0; half < 2; ++half)
		data[half].effective = data[half].permitted = uint32_t(keep >> 32 * half);
	return !::prctl(PR_SET_KEEPCAPS, 1) && !::setresgid(kNoUser, kNoUser, kNoUser) &&
	       !::setresuid(kNoUser, kNoUser, kNoUser) && !::syscall(SYS_capset, &head, data);
}

} // namespace

void work(const Plan &plan, Progress &progress)
{
	Progress::Worker &mine = progress.workers[plan.cpu];
	vm::pin(int(plan.cpu));
	Kcov kcov;
	const uint64_t keep = uint64_t{ 1 } << CAP_NET_ADMIN | uint64_t{ 1 } << CAP_NET_RAW |
			      uint64_t{ 1 } << CAP_SYS_RESOURCE;
	Corpus corpus(plan.seed + plan.cpu);
	Player player(plan.families, plan.operates);
	if (!drop_privileges(plan.operates ? keep : 0)) {
		std::perror("worker: privileges");
		mine.failed = true;
		std::_Exit(1);
	}
	for (size_t n = 0; !progress.stop && (plan.cases.empty() || n < plan.cases.size()); ++n) {
		const Bytes bytes = plan.cases.empty() ? corpus.next() : plan.cases[n];
		if (plan.log >= 0) {
			const std::string line = line_of({ plan.cpu, bytes });
			if (::write(plan.log, line.data(), line.size()) < 0)
				std::perror("worker: cases");
		}
		kcov.begin();
		try {
			player.play(Input(bytes.data(), bytes.size()));
		} catch (const std::exception &) {
			// An allocation that was to fail was one of the worker's own, or of the lab's.
			player.rest();
		}
		if (kcov.end() != 0 && plan.cases.empty()) {
			corpus.keep(bytes);
			++mine.kept;
		}
		mine.steps = kcov.seen();
		mine.calls = player.calls();
		++mine.cases;
	}
	std::_Exit(0);
}

} // namespace fuzz
