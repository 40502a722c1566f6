/* SPDX-License-Identifier: GPL-2.0-only */
/* The file that the module writes for MOX_MSG_TECH. */
#ifndef MOXCTL_DUMP_FILE_H
#define MOXCTL_DUMP_FILE_H

#include <cstdint>
#include <string>
#include <string_view>

namespace moxctl {

/** The number of the virtual switch device that a working directory belongs to, as the module derives it. */
std::uint32_t vsd_of(std::string_view working_directory);

/** The calling process's working directory, in the kernel's words. Throws Failure. */
std::string working_directory();

/** The dump file of a virtual switch device. */
class DumpFile {
public:
	/** root stands in front of the path: empty but in tests. */
	explicit DumpFile(std::uint32_t vsd, const std::string &root = {});

	const std::string &path() const { return path_; }

	/**
     * Makes the directories that are missing, which the module does not, and removes the file of an earlier dump, which
     * could be taken for a new one where the module fails to write. Throws Failure.
     */
	void prepare() const;

	/** What the module wrote. Throws Failure when there is no file, nothing in it, or it cannot be read. */
	std::string read() const;

private:
	std::size_t root_length_;
	std::string path_;
};

/** Writes a whole file. Throws Failure. */
void write_file(const std::string &path, std::string_view text);

} // namespace moxctl

#endif
