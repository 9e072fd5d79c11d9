// Overlays through qemu-img.
#include "Overlay.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "Block.h"
#include "Subprocess.h"

namespace TamvikImage {

Error CreateOverlay(const std::string& image, const std::string& format, const std::string& overlay) {
    char* absolute = realpath(image.c_str(), nullptr);
    if (absolute == nullptr) return FailErrno(errno == ENOENT ? ErrorKind::NotFound : ErrorKind::Io, image, errno);
    const std::string backing = absolute;
    std::free(absolute);
    // Claiming the name first makes an existing file a refusal, not an overwrite.
    const int fd = open(overlay.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0)
        return FailErrno(errno == EEXIST ? ErrorKind::Unsupported : ErrorKind::Io,
                         overlay + ": the overlay must be a new file", errno);
    close(fd);
    Error error = RunProgram({"qemu-img", "create", "-q", "-f", "qcow2", "-b", backing, "-F", format, overlay});
    if (error) {
        unlink(overlay.c_str());
        error.kind = QemuErrorKind(error.text, error.kind);
    }
    return error;
}

}  // namespace TamvikImage
