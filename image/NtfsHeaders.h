// libntfs-3g's headers expect a configured build: these system headers and
// the HAVE_ macros stand in for its config.h, and its C declarations get C
// linkage.
#pragma once

#include <stdarg.h>
#include <stdint.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>

#ifndef HAVE_STDARG_H
#define HAVE_STDARG_H 1
#endif

extern "C" {
#include <ntfs-3g/attrib.h>
#include <ntfs-3g/device.h>
#include <ntfs-3g/dir.h>
#include <ntfs-3g/inode.h>
#include <ntfs-3g/logging.h>
#include <ntfs-3g/unistr.h>
#include <ntfs-3g/volume.h>
}

// support.h defines these as macros, which would break <algorithm>.
#undef min
#undef max
