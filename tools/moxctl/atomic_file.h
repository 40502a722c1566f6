/* SPDX-License-Identifier: GPL-2.0-only */
/* Files that are replaced as a whole. */
#ifndef MOXCTL_ATOMIC_FILE_H
#define MOXCTL_ATOMIC_FILE_H

#include <string>
#include <string_view>

namespace moxctl {

/**
 * Replaces a file, or creates it with mode 644: a reader sees the old content or the new one. The new content is first in
 * a file of the same directory whose name begins with a dot; that is removed when something fails. Throws Failure.
 */
void replace_file(const std::string &path, std::string_view text);

} // namespace moxctl

#endif
