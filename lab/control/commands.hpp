// SPDX-License-Identifier: GPL-2.0-only
// The commands of the moxlab program.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "moxlab.hpp"

namespace moxlab {

/// What follows the command's name: words, and --option VALUE or --option. Taking consumes; what is left over is an
/// error, so that a mistyped option cannot pass unseen.
class Arguments {
public:
	explicit Arguments(std::vector<std::string> words) : words_(std::move(words)) {}

	std::string word(std::string_view what);
	std::optional<std::string> word_if_any();
	std::optional<std::string> option(std::string_view name);
	bool flag(std::string_view name);
	void end() const;

private:
	std::vector<std::string> words_;
};

struct Command {
	std::string_view name;
	std::string_view usage; ///< what follows the name
	std::string_view help;
	void (*run)(const Device &lab, Arguments args);
};

extern const std::span<const Command> kCommands;

} // namespace moxlab
