// SPDX-License-Identifier: GPL-2.0-only
// mox_printk: renders what the module logs, with the kernel's pointer formats.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "kernel.h"

extern "C" int mox_printk(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

namespace {

std::string print(const char *format, ...)
{
	char out[4096];
	va_list args;
	va_start(args, format);
	vsnprintf(out, sizeof out, format, args);
	va_end(args);
	return out;
}

// The kernel's %p family, as far as it is used; advances over the extension.
std::string pointer(const char *&f, const void *p)
{
	auto *b = static_cast<const unsigned char *>(p);
	if (*f == 'M') {
		f++;
		return print("%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2], b[3], b[4], b[5]);
	}
	if (f[0] == 'I' && f[1] == '4') {
		f += 2;
		return print("%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
	}
	if (f[0] == 'I' && f[1] == '6') {
		f += 2;
		std::string s;
		for (int i = 0; i < 16; i += 2)
			s += print(i ? ":%02x%02x" : "%02x%02x", b[i], b[i + 1]);
		return s;
	}
	return print("%08lx", reinterpret_cast<unsigned long>(p) & 0xffffffffUL);
}

// A width or a precision: the kernel keeps them in 16 bits, and warns of one that does not fit.
std::string number(int value)
{
	EXPECT_LE(value, 0x7fff) << "a width or precision of printk";
	return std::to_string(value);
}

} // namespace

namespace fake {

std::string render(const char *f, va_list args)
{
	std::string out;
	while (*f) {
		if (*f != '%') {
			out += *f++;
			continue;
		}
		std::string spec = "%";
		for (f++; *f && std::strchr("-+ #0123456789.*lhz", *f); f++)
			spec += *f == '*' ? number(va_arg(args, int)) : std::string(1, *f);
		bool is_long = spec.find('l') != std::string::npos ||
			       spec.find('z') != std::string::npos;
		char c = *f++;
		spec += c;
		switch (c) {
		case '%':
			out += '%';
			break;
		case 's':
			out += print(spec.c_str(), va_arg(args, const char *));
			break;
		case 'p':
			out += pointer(f, va_arg(args, const void *));
			break;
		case 'd':
		case 'u':
		case 'x':
		case 'X':
		case 'c':
			out += is_long ? print(spec.c_str(), va_arg(args, long))
				       : print(spec.c_str(), va_arg(args, int));
			break;
		default:
			fake::breach("log format " + spec);
		}
	}
	return out;
}

} // namespace fake

int mox_printk(const char *fmt, ...)
{
	va_list args;
	va_start(args, fmt);
	std::string text = fake::render(fmt, args);
	va_end(args);
	fake::Line line;
	if (text.size() > 1 && text[0] == '\001') {
		// The platform's mox_printk looks for the level at the format's start.
		if (fmt[0] != '\001')
			fake::breach(
				"a level marker in an argument of mox_printk and not in its format");
		line.level = text[1] - '0';
		text.erase(0, 2);
	}
	line.text = text;
	fake::kernel().logging();
	fake::kernel().log.push_back(line);
	return static_cast<int>(text.size());
}
