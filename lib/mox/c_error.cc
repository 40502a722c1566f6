/* SPDX-License-Identifier: MIT */
#include "mox/c_error.h"

#include "mox/mox.h"

#include <algorithm>
#include <cstring>

namespace mox {
namespace {

// The longest text lists all rule types. An array: it needs no destructor when a thread ends, so that a program may
// unload the library.
thread_local char t_text[4096];

} // namespace

void note_failure(int error, const char *text) noexcept
{
	std::size_t length = std::min(std::strlen(text), sizeof(t_text) - 1);
	std::memmove(t_text, text, length);
	t_text[length] = '\0';
	errno = error;
}

} // namespace mox

const char *mox_error(void)
{
	return mox::t_text;
}

const char *mox_version(void)
{
	return MOX_VERSION;
}
