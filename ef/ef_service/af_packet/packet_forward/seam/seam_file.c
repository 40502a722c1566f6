// SPDX-License-Identifier: GPL-2.0
/* The dump file, and text. */
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
	struct file *file = filp_open(path, O_RDWR | O_CREAT | O_TRUNC, 0);

	return IS_ERR(file) ? NULL : file;
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
