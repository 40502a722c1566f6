/* SPDX-License-Identifier: GPL-2.0-only */
/* A capture of a few frames, written by the code under test, for tests with programs that read pcapng. */
#ifndef PCAPNG_SAMPLE_H
#define PCAPNG_SAMPLE_H

#include "pcapng_file.h"

/** Four frames from three interfaces: tagged, cut, without a header, and made by the device; three drops. */
void write_sample(moxcap::PcapngFile &file);

/** The description of that capture, but for the location. */
moxcap::CaptureDescription sample_description(std::uint32_t location);

#endif
