// SPDX-License-Identifier: GPL-2.0-only
/*
 * Beside the tests of a mutated module: chooses the mutant and limits what it may use, or notes
 * which mutants' sites each test reaches.
 *
 * MOX_MUTANT          the mutant's number
 * MOX_MUTANT_SECONDS  CPU time after which the program ends with SIGXCPU
 * MOX_MUTANT_REACHED  instead: a file that takes "TEST<TAB>microseconds<TAB>NUMBER ..." of each test
 */
#include "mutate_live.hpp"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>
#include <sys/resource.h>

namespace {

constexpr int kMutants = 1 << 20;

void limit(int resource, rlim_t most)
{
	const rlimit both = { most, most };
	setrlimit(resource, &both);
}

/** Before all other constructors: they may run mutated code. */
__attribute__((constructor(101))) void choose()
{
	const char *chosen = getenv("MOX_MUTANT");
	if (!chosen)
		return;
	mox_mutant = atoi(chosen);
	const char *seconds = getenv("MOX_MUTANT_SECONDS");
	const rlim_t most = seconds ? strtoul(seconds, nullptr, 10) : 10;
	/* The hard limit kills: SIGXCPU, which is the answer, comes at the soft one. */
	const rlimit cpu = { most, most + 5 };
	setrlimit(RLIMIT_CPU, &cpu);
	limit(RLIMIT_CORE, 0);
	limit(RLIMIT_FSIZE, 64 << 20);
#ifndef __SANITIZE_ADDRESS__
	limit(RLIMIT_AS, rlim_t(2) << 30);
#endif
}

class Reached : public testing::EmptyTestEventListener {
public:
	explicit Reached(FILE *file) : file_(file) {}

	/** What ran before the first test may count for each of them. */
	void OnTestProgramStart(const testing::UnitTest &) override { write("", 0); }

	void OnTestStart(const testing::TestInfo &) override
	{
		memset(mox_mutants_reached, 0, kMutants);
		start_ = std::chrono::steady_clock::now();
	}

	void OnTestEnd(const testing::TestInfo &test) override
	{
		const auto spent = std::chrono::steady_clock::now() - start_;
		write((std::string(test.test_suite_name()) + "." + test.name()).c_str(),
		      std::chrono::duration_cast<std::chrono::microseconds>(spent).count());
	}

private:
	void write(const char *name, long long microseconds)
	{
		fprintf(file_, "%s\t%lld\t", name, microseconds);
		for (int number = 1; number < kMutants; number++)
			if (mox_mutants_reached[number])
				fprintf(file_, "%d ", number);
		fputc('\n', file_);
		fflush(file_);
	}

	FILE *file_;
	std::chrono::steady_clock::time_point start_;
};

[[maybe_unused]] const bool listening = [] {
	const char *name = getenv("MOX_MUTANT_REACHED");
	FILE *file = name ? fopen(name, "w") : nullptr;
	if (file)
		testing::UnitTest::GetInstance()->listeners().Append(new Reached(file));
	return file != nullptr;
}();

} // namespace

extern "C" {
int mox_mutant;
unsigned char mox_mutants_reached[kMutants];
}
