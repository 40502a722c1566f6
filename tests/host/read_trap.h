// SPDX-License-Identifier: GPL-2.0-only
// The other CPU between two instructions: acts right behind each access to one word,
// where no fake is called that could play it.
#pragma once

#include <functional>

// While it lives, after() runs behind every instruction that touches the word. One at a
// time; the word is a global of the module, and after() may change it.
class ReadTrap {
public:
	ReadTrap(const void *word, std::function<void()> after);
	~ReadTrap();
	ReadTrap(const ReadTrap &) = delete;
	ReadTrap &operator=(const ReadTrap &) = delete;
};
