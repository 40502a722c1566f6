/* SPDX-License-Identifier: MIT */
/*
 * Where and how a program's packet sockets capture: from the environment, or from the file of all programs.
 *
 *     # program   settings
 *     dhcpd       location=ipv4 treatment=trap rule=dport=67
 *     lab-*       off
 *     *           location=lev2
 *
 * The first line whose pattern matches the program's name counts. A variable of the environment overrides the setting
 * of the same meaning.
 */
#ifndef MOX_RELAY_CONFIG_H
#define MOX_RELAY_CONFIG_H

#include "mox/rule.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace relay {

/** Longest file; a longer one is refused. */
inline constexpr std::size_t kMaxConfigBytes = 65536;
/** Most locations of a socket, each of which takes a capture socket. */
inline constexpr std::size_t kMaxLocations = 4;
/** Most additional rules of a socket. */
inline constexpr std::size_t kMaxRules = 16;

inline constexpr const char *kConfigPath = "/etc/mox-compat.conf";

/** A setting that is wrong; the text names the place, the setting and what is allowed. */
class ConfigError : public std::runtime_error {
public:
	using std::runtime_error::runtime_error;
};

struct Settings {
	bool native = false; /**< the program has the socket itself */
	std::vector<std::uint32_t> locations;
	std::uint32_t treatment = 0;
	bool any_interface = false; /**< frames of every interface count as of the bound one */
	std::vector<mox::Rule> rules;
};

/** A variable's value, null when it is not set. */
using Environment = std::function<const char *(const char *name)>;

/**
 * The settings of a program. text is the file's content, path its name for errors. Throws ConfigError.
 */
Settings parse_settings(std::string_view program, std::string_view text, std::string_view path,
			const Environment &environment, const mox::InterfaceLookup &lookup);

/**
 * The same with the file of the environment (MOX_COMPAT_CONF, which has to exist) or kConfigPath (which need not).
 */
Settings load_settings(std::string_view program, const Environment &environment,
		       const mox::InterfaceLookup &lookup);

} // namespace relay

#endif
