/* SPDX-License-Identifier: GPL-2.0-only */
#include "dump_file.h"

#include "mox_packet.h"
#include "status.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace moxctl {
namespace {

[[noreturn]] void fail(const std::string &what, const std::string &path,
		       const std::string &remedy = {})
{
	throw Failure("cannot " + what + " " + path + ": " + std::strerror(errno) +
		      (remedy.empty() ? "" : "; " + remedy));
}

/** Closes itself. */
struct File {
	int fd;
	~File()
	{
		if (fd >= 0)
			close(fd);
	}
};

} // namespace

std::uint32_t vsd_of(std::string_view working_directory)
{
	constexpr std::string_view prefix = MOX_VSD_PREFIX;
	if (!working_directory.starts_with(prefix))
		return 0;
	// Wraps as the module's word does: a number with its top bit set counts as negative, and that as none.
	std::uint32_t number = 0;
	for (char c : working_directory.substr(prefix.size())) {
		if (c < '0' || c > '9')
			break;
		number = number * 10 + static_cast<std::uint32_t>(c - '0');
	}
	return number > 0x7fffffff ? 0 : number;
}

std::string working_directory()
{
	// The link gives the kernel's own rendering, which is what the module sees; getcwd has another one for a
	// directory that was removed.
	char path[PATH_MAX];
	ssize_t length = readlink("/proc/self/cwd", path, sizeof(path));
	if (length >= 0)
		return { path, static_cast<std::size_t>(length) };
	if (!getcwd(path, sizeof(path)))
		fail("find out", "the working directory");
	return path;
}

DumpFile::DumpFile(std::uint32_t vsd, const std::string &root) : root_length_(root.size())
{
	char path[128];
	std::snprintf(path, sizeof(path), MOX_PACKET_DUMP_FILE, static_cast<int>(vsd));
	path_ = root + path;
}

void DumpFile::prepare() const
{
	// Others may write to /tmp: a link of theirs must not lead root elsewhere.
	for (std::size_t end = path_.find('/', root_length_ + 1); end != std::string::npos;
	     end = path_.find('/', end + 1)) {
		std::string directory = path_.substr(0, end);
		if (mkdir(directory.c_str(), 0755) != 0 && errno != EEXIST)
			fail("make the directory", directory,
			     "the module writes its dump file below it");
		struct stat status {};
		if (lstat(directory.c_str(), &status) != 0)
			fail("look at", directory);
		// The first one is /tmp itself, which devices do have as a link.
		bool is_link = S_ISLNK(status.st_mode) &&
			       directory.size() > root_length_ + std::strlen("/tmp");
		if (is_link || (!S_ISLNK(status.st_mode) && !S_ISDIR(status.st_mode)))
			throw Failure(
				directory +
				" is no directory: remove it, the module's dump file belongs below it");
	}
	if (unlink(path_.c_str()) != 0 && errno != ENOENT)
		fail("remove the old dump file", path_);
}

std::string DumpFile::read() const
{
	// The module makes the file without any right, which only root overlooks.
	File file{ open(path_.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC) };
	if (file.fd < 0 && errno == EACCES && chmod(path_.c_str(), 0600) == 0)
		file.fd = open(path_.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
	if (file.fd < 0 && errno == ENOENT)
		throw Failure(
			"the module answered, but wrote no file " + path_ +
			": it could not open it; \"moxctl debug on\" makes it say so in the kernel log");
	if (file.fd < 0)
		fail("open the dump file", path_);

	std::string text;
	char part[65536];
	ssize_t length;
	while ((length = ::read(file.fd, part, sizeof(part))) > 0)
		text.append(part, static_cast<std::size_t>(length));
	if (length < 0)
		fail("read the dump file", path_);
	if (text.empty())
		throw Failure(
			"the module wrote nothing into " + path_ +
			": it had no memory for its 128 KiB buffer, or the file system is full (df /tmp, free)");
	return text;
}

void write_file(const std::string &path, std::string_view text)
{
	File file{ open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644) };
	if (file.fd < 0)
		fail("write", path);
	while (!text.empty()) {
		ssize_t written = write(file.fd, text.data(), text.size());
		if (written < 0 && errno == EINTR)
			continue;
		if (written < 0)
			fail("write", path);
		text.remove_prefix(static_cast<std::size_t>(written));
	}
	// Some file systems say only here that there is no room.
	if (close(std::exchange(file.fd, -1)) != 0)
		fail("write", path);
}

} // namespace moxctl
