/* SPDX-License-Identifier: GPL-2.0-only */
#include "kernel_log.h"

#include "status.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <vector>

namespace moxctl {
namespace {

constexpr char kDevice[] = "/dev/kmsg";
// The kernel's own buffer for one record has 8 KiB; a shorter one than the record is refused.
constexpr std::size_t kLongestRecord = 16 * 1024;

template <typename Number> bool take_number(std::string_view &text, Number &number)
{
	auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
	if (error != std::errc())
		return false;
	text.remove_prefix(static_cast<std::size_t>(end - text.data()));
	return true;
}

bool take(std::string_view &text, char expected)
{
	if (text.empty() || text[0] != expected)
		return false;
	text.remove_prefix(1);
	return true;
}

std::string unescaped(std::string_view text)
{
	std::string plain;
	plain.reserve(text.size());
	for (std::size_t i = 0; i < text.size(); ++i) {
		unsigned char byte = 0;
		const char *digits = text.data() + i + 2;
		if (text[i] == '\\' && text.size() - i >= 4 && text[i + 1] == 'x' &&
		    std::from_chars(digits, digits + 2, byte, 16).ptr == digits + 2) {
			plain += static_cast<char>(byte);
			i += 3;
		} else {
			plain += text[i];
		}
	}
	return plain;
}

class Device : public KernelLog {
public:
	Device()
	{
		fd_ = open(kDevice, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
		if (fd_ < 0)
			throw Failure(kernel_log_error(errno));
		wake_ = eventfd(0, EFD_CLOEXEC);
		if (wake_ < 0 || lseek(fd_, 0, SEEK_END) < 0) {
			int error = errno;
			close_all();
			throw Failure(kernel_log_error(error));
		}
	}
	~Device() override { close_all(); }
	Device(const Device &) = delete;
	Device &operator=(const Device &) = delete;

	Read read(std::string &raw) override
	{
		ssize_t length;
		do
			length = ::read(fd_, buffer_.data(), buffer_.size());
		while (length < 0 && errno == EINTR);
		if (length >= 0) {
			raw.assign(buffer_.data(), static_cast<std::size_t>(length));
			return Read::kRecord;
		}
		if (errno == EAGAIN)
			return Read::kNone;
		if (errno == EPIPE)
			return Read::kOverwritten;
		throw Failure(kernel_log_error(errno));
	}

	void wait() override
	{
		pollfd poll_for[] = { { fd_, POLLIN, 0 }, { wake_, POLLIN, 0 } };
		poll(poll_for, 2, -1);
	}

	void interrupt() override
	{
		std::uint64_t one = 1;
		// It cannot fail: nothing else writes, and the counter holds far more.
		[[maybe_unused]] ssize_t written = write(wake_, &one, sizeof(one));
	}

private:
	void close_all()
	{
		close(fd_);
		if (wake_ >= 0)
			close(wake_);
	}

	int fd_ = -1, wake_ = -1;
	std::vector<char> buffer_ = std::vector<char>(kLongestRecord);
};

} // namespace

std::optional<LogRecord> decode_record(std::string_view raw)
{
	// "priority,sequence,microseconds,flags[,more...];text", then lines of the dictionary, indented by a blank.
	LogRecord record;
	std::uint64_t time = 0;
	std::string_view rest = raw;
	if (!take_number(rest, record.priority) || !take(rest, ',') ||
	    !take_number(rest, record.sequence) || !take(rest, ',') || !take_number(rest, time) ||
	    !take(rest, ','))
		return std::nullopt;
	std::size_t end_of_head = rest.find(';');
	if (end_of_head == std::string_view::npos)
		return std::nullopt;
	std::string_view head = rest.substr(0, end_of_head);
	rest.remove_prefix(end_of_head + 1);

	constexpr std::string_view caller = ",caller=";
	if (std::size_t at = head.find(caller); at != std::string_view::npos) {
		std::string_view name = head.substr(at + caller.size());
		record.caller = name.substr(0, name.find(','));
	}
	// A line end within the text is escaped: the first plain one ends it.
	record.text = unescaped(rest.substr(0, rest.find('\n')));
	return record;
}

std::string kernel_log_error(int error)
{
	std::string text = std::string("the report goes to the kernel log, and ") + kDevice + " ";
	switch (error) {
	case EPERM:
	case EACCES:
		return text +
		       "may not be read: run moxctl as root or with CAP_SYSLOG, or allow every user to read it: "
		       "sysctl kernel.dmesg_restrict=0";
	case ENOENT:
		return text + "does not exist: mknod /dev/kmsg c 1 11 makes it";
	case ENXIO:
	case ENODEV:
		return text + "has no kernel log behind it: the kernel needs CONFIG_PRINTK";
	default:
		return text + "cannot be read: " + std::strerror(error);
	}
}

std::unique_ptr<KernelLog> open_kernel_log()
{
	return std::make_unique<Device>();
}

} // namespace moxctl
