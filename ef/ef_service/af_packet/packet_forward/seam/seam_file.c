// SPDX-License-Identifier: GPL-2.0-only
/* The dump file, and text. */
#include <linux/dcache.h>
#include <linux/err.h>
#include <linux/fs.h>
#include <linux/kernel.h>

#include "seam_control.h"

int seam_scnprintf(char *buf, size_t size, const char *fmt, ...)
{
	va_list args;
	int len;

	va_start(args, fmt);
	len = vscnprintf(buf, size, fmt, args);
	va_end(args);
	return len;
}

struct file *seam_file_open(const char *path)
{
	const int flags = O_RDWR | O_CREAT | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY;
	struct file *file = filp_open(path, flags, 0);

	return IS_ERR(file) ? NULL : file;
}

int seam_file_is_regular(const struct file *file)
{
	return S_ISREG(file_inode(file)->i_mode);
}

u32 seam_file_links(const struct file *file)
{
	struct dentry *name = file->f_path.dentry;
	struct dentry *parent = dget_parent(name);
	u32 links = 0;

	/*
	 * Removing or renaming a name holds its directory's lock until name and
	 * count agree again. Without that lock, a hard link could count as the
	 * file's only name in the moment of its removal.
	 */
	inode_lock_shared(d_inode(parent));
	if (name->d_parent == parent && !d_unlinked(name))
		links = file_inode(file)->i_nlink;
	inode_unlock_shared(d_inode(parent));
	dput(parent);
	return links;
}

int seam_file_empty(const struct file *file)
{
	return i_size_read(file_inode(file)) == 0;
}

int seam_file_truncate(struct file *file)
{
	return vfs_truncate(&file->f_path, 0);
}

long seam_file_write(struct file *file, const void *from, size_t len)
{
	/*
	 * Writes a kernel buffer on every kernel. 4.19 would take vfs_write
	 * between two set_fs as well, but set_fs is gone since 5.10, and a path
	 * that left the limit raised would open kernel memory to the process.
	 */
	return kernel_write(file, from, len, &file->f_pos);
}

void seam_file_close(struct file *file)
{
	filp_close(file, NULL);
}
