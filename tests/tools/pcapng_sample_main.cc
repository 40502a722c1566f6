/* SPDX-License-Identifier: GPL-2.0-only */
/* Writes the sample to a file, or to standard output ("-"). */
#include "pcapng_sample.h"

#include "mox/names.h"

#include <cstdio>
#include <exception>

int main(int argc, char **argv)
{
	if (argc != 3) {
		std::fputs("usage: pcapng_sample LOCATION FILE\n", stderr);
		return 2;
	}
	try {
		moxcap::PcapngFile file(argv[2], moxcap::Layout::kEthernet, 65535, true,
					sample_description(mox::parse_location(argv[1])));
		write_sample(file);
	} catch (const std::exception &error) {
		std::fprintf(stderr, "pcapng_sample: %s\n", error.what());
		return 1;
	}
	return 0;
}
