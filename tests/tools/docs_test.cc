// SPDX-License-Identifier: GPL-2.0-only
/* The documents' tables against the tables that the module and the tools are built from. */
#include "mox_packet_tables.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Row = std::vector<std::string>;

std::string trimmed(std::string_view text)
{
	auto first = text.find_first_not_of(' ');
	if (first == std::string_view::npos)
		return {};
	return std::string(text.substr(first, text.find_last_not_of(' ') - first + 1));
}

std::string without_backticks(std::string text)
{
	std::erase(text, '`');
	return text;
}

/** The rows of all tables of a document, their cells without backticks. */
std::vector<Row> table_rows(const char *document)
{
	std::ifstream file(std::string(DOCS_DIR) + "/" + document);
	EXPECT_TRUE(file) << document;
	std::vector<Row> rows;
	for (std::string line; std::getline(file, line);) {
		if (!line.starts_with("| "))
			continue;
		Row row;
		std::string_view rest = std::string_view(line).substr(1);
		for (auto end = rest.find(" |"); end != std::string_view::npos;
		     end = rest.find(" |")) {
			row.push_back(without_backticks(trimmed(rest.substr(0, end))));
			rest.remove_prefix(end + 2);
		}
		rows.push_back(row);
	}
	return rows;
}

/** The rows of two columns, by their first one. */
std::map<std::string, std::string> two_columns(const char *document)
{
	std::map<std::string, std::string> table;
	for (const Row &row : table_rows(document))
		if (row.size() == 2)
			table[row[0]] = row[1];
	return table;
}

struct Counter {
	std::string label;
	unsigned line;
	const char *meaning;
};

std::vector<Counter> counters()
{
#define COUNTER(field, label, line, meaning) { label, line, meaning },
	std::vector<Counter> table = { MOX_PACKET_COUNTER_TABLE(COUNTER) };
#undef COUNTER
	for (Counter &each : table)
		each.label.pop_back(); /* the colon */
	return table;
}

TEST(docs, counters__have_the_label_and_the_meaning_of_the_table)
{
	auto documented = two_columns("troubleshooting.md");
	for (const Counter &each : counters()) {
		ASSERT_TRUE(documented.contains(each.label)) << each.label;
		EXPECT_EQ(documented[each.label], each.meaning) << each.label;
	}
}

TEST(docs, counters__stand_in_the_order_of_the_socket_report)
{
	std::vector<Counter> expected = counters();
	std::sort(expected.begin(), expected.end(),
		  [](const Counter &a, const Counter &b) { return a.line < b.line; });
	std::vector<std::string> labels, documented;
	for (const Counter &each : expected)
		labels.push_back(each.label);
	for (const Row &row : table_rows("troubleshooting.md"))
		if (row.size() == 2 &&
		    std::find(labels.begin(), labels.end(), row[0]) != labels.end())
			documented.push_back(row[0]);
	EXPECT_EQ(documented, labels);
}

TEST(docs, rule_types__have_the_number_the_name_and_the_width_of_the_table)
{
	struct {
		unsigned number;
		const char *name;
		unsigned width;
	} const types[] = {
#define TYPE(type, width, ...) { type, #type, width },
		MOX_PACKET_RULE_TYPE_TABLE(TYPE)
#undef TYPE
	};
	std::map<std::string, Row> documented;
	for (const Row &row : table_rows("sockets.md"))
		if (row.size() == 5)
			documented[row[1]] = row;
	for (const auto &each : types) {
		ASSERT_TRUE(documented.contains(each.name)) << each.name;
		const Row &row = documented[each.name];
		EXPECT_EQ(row[0], std::to_string(each.number)) << each.name;
		/* A type without elements has no width to speak of. */
		if (each.number != PACKET_ALL)
			EXPECT_EQ(row[2], std::to_string(each.width)) << each.name;
	}
}

} // namespace
