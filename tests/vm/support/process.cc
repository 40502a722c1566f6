// SPDX-License-Identifier: GPL-2.0-only
#include "support/process.h"

#include <csignal>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vm {

Process::Process(std::vector<std::string> words)
{
	static int count;
	file_ = "/tmp/process-" + std::to_string(getpid()) + "-" + std::to_string(++count);
	std::vector<char *> arguments;
	for (std::string &word : words)
		arguments.push_back(word.data());
	arguments.push_back(nullptr);

	pid_ = fork();
	if (pid_ == 0) {
		int file = open(file_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
		dup2(file, STDOUT_FILENO);
		dup2(file, STDERR_FILENO);
		execvp(arguments[0], arguments.data());
		_exit(127);
	}
}

Process::~Process()
{
	if (pid_ > 0) {
		kill(pid_, SIGKILL);
		waitpid(pid_, nullptr, 0);
	}
	unlink(file_.c_str());
}

void Process::signal(int number)
{
	if (pid_ > 0)
		kill(pid_, number);
}

int Process::wait(int milliseconds)
{
	constexpr int step = 20;
	for (int waited = 0; pid_ > 0 && waited <= milliseconds; waited += step) {
		int status;
		if (waitpid(pid_, &status, WNOHANG) == pid_) {
			pid_ = -1;
			return WIFEXITED(status) ? WEXITSTATUS(status) : 256 + WTERMSIG(status);
		}
		usleep(step * 1000);
	}
	return -1;
}

std::string Process::output() const
{
	std::ifstream file(file_);
	std::ostringstream text;
	text << file.rdbuf();
	return text.str();
}

int run(std::vector<std::string> words)
{
	return Process(std::move(words)).wait();
}

} // namespace vm
