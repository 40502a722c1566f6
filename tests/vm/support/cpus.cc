// SPDX-License-Identifier: GPL-2.0-only
#include "support/cpus.h"

#include <fstream>
#include <stdexcept>
#include <string>

#include <unistd.h>

namespace vm {

int present_cpus()
{
	// CPUs are numbered without gaps: "0" or "0-3".
	std::ifstream in("/sys/devices/system/cpu/present");
	std::string present;
	if (!(in >> present) || present.find(',') != std::string::npos)
		throw std::runtime_error("/sys/devices/system/cpu/present reads \"" + present +
					 "\", not one range");
	const size_t dash = present.find('-');
	return 1 + std::stoi(dash == std::string::npos ? present : present.substr(dash + 1));
}

int cpu_for(int cpu)
{
	// Asked once: a test that takes a CPU offline for a while must not send the others elsewhere.
	static const int online = int(::sysconf(_SC_NPROCESSORS_ONLN));
	return cpu < 0 ? cpu : cpu % online;
}

cpu_set_t affinity_for(int cpu)
{
	cpu_set_t set;
	CPU_ZERO(&set);
	for (int i = 0; i < present_cpus(); ++i)
		if (cpu < 0 || cpu_for(cpu) == i)
			CPU_SET(i, &set);
	return set;
}

} // namespace vm
