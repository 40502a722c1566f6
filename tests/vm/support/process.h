// SPDX-License-Identifier: GPL-2.0-only
// A program of the machine, as an operator runs it.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace vm {

class Process {
public:
	/// Starts the program, found by PATH, with its output in a file. A program that is not there ends with 127.
	explicit Process(std::vector<std::string> words);
	/// Kills it, if it still runs.
	~Process();
	Process(const Process &) = delete;

	void signal(int number);
	/// The exit status, 256 and the number of the signal that ended it, or -1 when it still runs after the time.
	int wait(int milliseconds = 20000);
	/// What it has printed so far, errors included.
	std::string output() const;

private:
	pid_t pid_;
	std::string file_;
};

/// Runs a program to its end; its status.
int run(std::vector<std::string> words);

} // namespace vm
