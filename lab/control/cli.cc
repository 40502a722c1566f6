// SPDX-License-Identifier: GPL-2.0-only
// moxlab - the lab platform's control device for scripts.
#include <algorithm>
#include <cstdio>

#include "commands.hpp"
#include "names.hpp"

namespace {

void print_help()
{
	std::printf(
		"usage: moxlab COMMAND [ARGUMENT...]\n\nSteers the lab's forwarding platform over %s.\n\n",
		MOXLAB_DEVICE);
	for (const auto &c : moxlab::kCommands)
		std::printf("  %.*s %.*s\n        %.*s\n", int(c.name.size()), c.name.data(),
			    int(c.usage.size()), c.usage.data(), int(c.help.size()), c.help.data());
	auto list = [](const char *what, moxlab::Names names) {
		std::printf("%s", what);
		for (auto name : names)
			std::printf(" %.*s", int(name.size()), name.data());
		std::printf("\n");
	};
	std::printf("\n");
	list("Points of inject:", moxlab::kPoints);
	list("Calls of fail:   ", moxlab::kFailCalls);
	std::printf(
		"Options of inject: --port, --src, --dst (an interface; \"none\": no block), --cpu, --repeat, --only FUNCTION;\n"
		"  efbuff fields, words: "
#define OPTION(field, id, bit, offset, convert, option) " " option
		MOXLAB_WORDS(OPTION) "\n  half-words: " MOXLAB_HALVES(OPTION) "\n  bytes: " MOXLAB_BYTES(
			OPTION) "\n\n"
#undef OPTION
				"Examples:\n"
				"  moxlab port add eth0\n"
				"  moxlab inject pipeline "
				"\"ffffffffffff 020000000001 0806 0001080006040001\" --port eth0\n"
				"  moxlab inject lev2 \"0180c200000e 020000000001 88cc 0000\" --src eth0 --cpu 2 --flags 0x4000\n"
				"  moxlab fail clone --skip 2 --count 1\n\n"
				"Exit code: 0 done, 1 the platform refused, 2 wrong use.\n");
}

} // namespace

int main(int argc, char **argv)
{
	std::vector<std::string> words(argv + 1, argv + argc);
	if (words.empty() || words[0] == "--help" || words[0] == "-h") {
		print_help();
		return words.empty() ? 2 : 0;
	}
	auto command = std::find_if(moxlab::kCommands.begin(), moxlab::kCommands.end(),
				    [&](const auto &c) { return c.name == words[0]; });
	if (command == moxlab::kCommands.end()) {
		std::string all;
		for (const auto &c : moxlab::kCommands)
			all += " " + std::string(c.name);
		std::fprintf(stderr, "moxlab: unknown command \"%s\"; there are:%s\n",
			     words[0].c_str(), all.c_str());
		return 2;
	}
	words.erase(words.begin());
	try {
		moxlab::Device lab;
		command->run(lab, moxlab::Arguments(std::move(words)));
		return 0;
	} catch (const moxlab::Usage &e) {
		std::fprintf(stderr, "moxlab %s: %s\nusage: moxlab %s %s\n", argv[1], e.what(),
			     argv[1], std::string(command->usage).c_str());
		return 2;
	} catch (const std::exception &e) {
		std::fprintf(stderr, "moxlab: %s\n", e.what());
		return 1;
	}
}
