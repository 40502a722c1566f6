// SPDX-License-Identifier: GPL-2.0-only
// moxctl: any records of the kernel log; the report that is picked out of them, and its JSON.
#include <nlohmann/json.hpp>

#include "harness.h"
#include "json.h"
#include "kernel_log.h"
#include "printable.h"
#include "report.h"
#include "report_filter.h"
#include "report_lines.h"

namespace {

constexpr uint32_t kPort = 4711;

// A read of /dev/kmsg: of the form that the kernel writes, with any text, or any bytes.
std::string record_text(fuzz::Input &input, unsigned long number)
{
	const uint8_t how = input.byte();
	const auto bytes = input.bytes(input.byte());
	std::string text(bytes.begin(), bytes.end());
	if (how < 64) { // a form of line, with the text in place of its values
		const auto forms = moxctl::line_forms();
		std::string line;
		for (std::string_view rest = forms[how % forms.size()].format; !rest.empty();) {
			const bool is_value = rest[0] == '%';
			line += is_value ? text : std::string(1, rest[0]);
			rest.remove_prefix(is_value ? 2 : 1);
		}
		text = line;
	}
	if (how >= 240)
		return text;
	return "4," + std::to_string(number + (how & 1 ? input.byte() : 0)) + ",1,-;" + text + "\n";
}

} // namespace

void fuzz_case(fuzz::Input input)
{
	const unsigned kind = 1u << input.below(6);
	moxctl::ReportFilter filter(kPort, kind);
	unsigned long number = 1;
	moxctl::LogRecord opening;
	opening.priority = 4;
	opening.sequence = number;
	opening.text = "Deal message from 4711, moxctl.";
	if (input.below(8))
		filter.take(opening);
	for (int records = 0; records < 64 && !input.empty(); records++)
		if (const auto record = moxctl::decode_record(record_text(input, ++number)))
			filter.take(*record);
	if (input.below(8) == 1)
		filter.overwritten();
	filter.finish();
	EXPECT_TRUE(filter.begun() || filter.lines().empty());
	const moxctl::Report report = moxctl::parse_report(filter.lines(), kind,
							   1 + input.below(8));
	const std::string json = moxctl::to_json(report, kind);
	EXPECT_TRUE(nlohmann::json::accept(json)) << json;
	expect_printable(json);
}
