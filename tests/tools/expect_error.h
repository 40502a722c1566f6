/* SPDX-License-Identifier: GPL-2.0-only */
/* Expectations about the text of an error: that it names the thing, what is allowed and the remedy. */
#ifndef EXPECT_ERROR_H
#define EXPECT_ERROR_H

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

template <typename Error>
void expect_error(const std::function<void()> &action, const std::vector<std::string> &parts)
{
	try {
		action();
	} catch (const Error &error) {
		for (const std::string &part : parts)
			EXPECT_NE(std::string(error.what()).find(part), std::string::npos)
				<< "\"" << part << "\" is missing in: " << error.what();
		return;
	}
	ADD_FAILURE() << "nothing was refused";
}

#endif
