/* SPDX-License-Identifier: GPL-2.0-only */
#include "atomic_file.h"

#include "status.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace moxctl {
namespace {

bool write_all(int file, std::string_view text)
{
	while (!text.empty()) {
		ssize_t written = write(file, text.data(), text.size());
		if (written < 0 && errno == EINTR)
			continue;
		if (written <= 0)
			return false;
		text.remove_prefix(static_cast<std::size_t>(written));
	}
	return true;
}

} // namespace

void replace_file(const std::string &path, std::string_view text)
{
	std::size_t name = path.rfind('/') + 1; // 0 without a slash
	std::string temporary = path.substr(0, name) + "." + path.substr(name) + ".XXXXXX";
	int file = mkostemp(temporary.data(), O_CLOEXEC);
	if (file < 0)
		throw Failure("cannot create a file beside " + path + ": " + std::strerror(errno));
	bool done = fchmod(file, 0644) == 0 && write_all(file, text) && fsync(file) == 0;
	int error = errno;
	if (close(file) != 0 && done) {
		done = false;
		error = errno;
	}
	if (done && std::rename(temporary.c_str(), path.c_str()) == 0)
		return;
	if (done)
		error = errno;
	unlink(temporary.c_str());
	throw Failure("cannot write " + path + ": " + std::strerror(error));
}

} // namespace moxctl
