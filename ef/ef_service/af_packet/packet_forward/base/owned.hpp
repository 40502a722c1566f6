// SPDX-License-Identifier: GPL-2.0-only
/* Ownership of one object that is not memory of C++: a datum, an efbuff, a buffer, a file. */
#pragma once

namespace mox {

/** Mark an object as one whose content may be moved on. */
template <typename T> constexpr T &&move(T &object)
{
	return static_cast<T &&>(object);
}

/**
 * The owner of an object, or of nothing. Give_back(object) runs at the end of
 * the scope unless release() ended the ownership before. Moved, never copied. The
 * context in which an owner may end is Give_back's.
 */
template <typename T, auto Give_back> class Owned {
public:
	Owned() = default;
	explicit Owned(T *object) : object_(object) {}
	Owned(Owned &&other) noexcept : object_(other.release()) {}
	Owned &operator=(Owned &&other) noexcept
	{
		T *old = object_;
		object_ = other.release();
		if (old)
			Give_back(old);
		return *this;
	}
	Owned(const Owned &) = delete;
	Owned &operator=(const Owned &) = delete;
	~Owned()
	{
		if (object_)
			Give_back(object_);
	}

	explicit operator bool() const { return object_ != nullptr; }
	T *get() const { return object_; }
	T *operator->() const { return object_; }
	/** End the ownership without giving the object back: the caller owns it. */
	[[nodiscard]] T *release()
	{
		T *object = object_;
		object_ = nullptr;
		return object;
	}

private:
	T *object_ = nullptr;
};

} // namespace mox
