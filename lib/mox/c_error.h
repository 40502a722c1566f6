/* SPDX-License-Identifier: MIT */
/* Inside the library: exceptions become errno and a text. Not installed. */
#ifndef MOX_C_ERROR_H
#define MOX_C_ERROR_H

#include "mox/error.h"

#include <pthread.h>

#include <cerrno>
#include <exception>
#include <new>
#include <string>

namespace mox {

/** Sets errno and the text of mox_error. Keeps the first 4095 bytes of it. */
void note_failure(int error, const char *text) noexcept;

/**
 * Keeps the thread from being cancelled as long as it exists: the end of a cancelled thread, which glibc makes an
 * exception of, would have to pass functions that let none out. A request stays pending.
 */
class Uncancelled {
public:
	Uncancelled() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
	~Uncancelled() { pthread_setcancelstate(before_, nullptr); }
	Uncancelled(const Uncancelled &) = delete;
	Uncancelled &operator=(const Uncancelled &) = delete;

private:
	int before_ = PTHREAD_CANCEL_ENABLE;
};

/** Runs a function of the C API: its result, or `failed` after an exception. */
template <typename Function, typename Result>
Result guarded(Result failed, const Function &function) noexcept
{
	Uncancelled uncancelled;
	try {
		return function();
	} catch (const SocketError &error) {
		note_failure(error.error(), error.what());
	} catch (const UsageError &error) {
		note_failure(EINVAL, error.what());
	} catch (const std::bad_alloc &) {
		note_failure(ENOMEM, "no memory in this process");
	} catch (const std::exception &error) {
		note_failure(EINVAL, error.what());
	}
	return failed;
}

/** Runs a function of the C API that returns 0, or -1 after an exception. */
template <typename Function> int done(const Function &function) noexcept
{
	return guarded(-1, [&] {
		function();
		return 0;
	});
}

/** The text. Throws UsageError for NULL; what names the argument. */
inline const char *not_null(const char *text, const char *what)
{
	if (!text)
		throw UsageError(std::string(what) + " is NULL: give a text");
	return text;
}

} // namespace mox

#endif
