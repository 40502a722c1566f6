// SPDX-License-Identifier: GPL-2.0-only
#include "support/symbols.h"

#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <vector>

#include <elf.h>

#include "support/module.h"

namespace vm {

/// Kernels without KALLSYMS_ALL list no data symbols: those come from the module's file, with the addresses that its
/// sections were loaded to. 0 when the module is not there or has no such symbol.
static uint64_t address_by_file(const std::string &module, const std::string &symbol)
{
	std::ifstream in(module_file(module), std::ios::binary);
	std::vector<char> file{ std::istreambuf_iterator<char>(in),
				std::istreambuf_iterator<char>() };
	if (file.size() < sizeof(Elf32_Ehdr) || std::memcmp(file.data(), ELFMAG, SELFMAG))
		return 0;
	auto at = [&](uint64_t offset, uint64_t size) -> const char * {
		if (offset + size > file.size())
			throw std::runtime_error(module + ".ko is cut short");
		return file.data() + offset;
	};
	const auto *head = reinterpret_cast<const Elf32_Ehdr *>(at(0, sizeof(Elf32_Ehdr)));
	const auto *sections = reinterpret_cast<const Elf32_Shdr *>(
		at(head->e_shoff, head->e_shnum * sizeof(Elf32_Shdr)));
	const char *section_names = at(sections[head->e_shstrndx].sh_offset,
				       sections[head->e_shstrndx].sh_size);
	for (unsigned i = 0; i < head->e_shnum; ++i) {
		if (sections[i].sh_type != SHT_SYMTAB)
			continue;
		const auto *symbols = reinterpret_cast<const Elf32_Sym *>(
			at(sections[i].sh_offset, sections[i].sh_size));
		const Elf32_Shdr &text = sections[sections[i].sh_link];
		const char *names = at(text.sh_offset, text.sh_size);
		for (unsigned n = 0; n < sections[i].sh_size / sizeof(Elf32_Sym); ++n) {
			if (symbol != names + symbols[n].st_name ||
			    symbols[n].st_shndx == SHN_UNDEF ||
			    symbols[n].st_shndx >= head->e_shnum)
				continue;
			std::string section = section_names + sections[symbols[n].st_shndx].sh_name;
			std::ifstream loaded("/sys/module/" + module + "/sections/" + section);
			std::string base;
			return loaded >> base ? std::stoull(base, nullptr, 16) + symbols[n].st_value
					      : 0;
		}
	}
	return 0;
}

constexpr const char *kModules[] = { "mox_ef_socket", "efmp" };

std::string load_addresses()
{
	std::string all;
	for (const char *module : kModules) {
		std::ifstream in(std::string("/sys/module/") + module + "/sections/.text");
		std::string address;
		in >> address;
		all += address + " ";
	}
	return all;
}

uint64_t symbol_address(const std::string &symbol)
{
	for (const char *module : kModules)
		if (uint64_t address = address_by_file(module, symbol))
			return address;
	throw std::runtime_error("no symbol " + symbol + " in the modules loaded");
}

} // namespace vm
