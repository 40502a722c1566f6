/* SPDX-License-Identifier: GPL-2.0-only */
/* How the agent reports that the system refused something. */
#ifndef LLDPAGENT_ERROR_H
#define LLDPAGENT_ERROR_H

#include <stdexcept>

namespace lldp {

/** A system call failed; the text names it and, where there is one, the remedy. */
class SystemError : public std::runtime_error {
public:
	using std::runtime_error::runtime_error;
};

} // namespace lldp

#endif
