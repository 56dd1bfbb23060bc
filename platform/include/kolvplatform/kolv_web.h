/*
 * kolv_web.h - web output for CGI downloads: the MIME type of a file name,
 * a file streamed to standard output with its CGI headers, URL encoding.
 * C++ only.
 */
#ifndef KOLV_WEB_H
#define KOLV_WEB_H

#include <string>

#include "kolvplatform/kolv_platform.h"

class KOLV_PLATFORM_API HTTPFileOutputer {
  public:
    /* The MIME type for a file name's extension (case-insensitive, the part after the last '.') from the
     * system's MIME table /etc/mime.types (read once per process, thread-safe); "application/octet-stream"
     * when the name has no extension, the extension is unknown, or the table cannot be read. */
    std::string GetMimeType(const char *szFileName);
    /* Writes the CGI headers "Content-Type: <mime>\r\n", "Content-Length: <size>\r\n" and the empty line
     * "\r\n", then the file's bytes, to standard output, streamed in fixed 64 KiB chunks (never the whole
     * file in memory). szPath's last component is never followed if it is a link (O_NOFOLLOW), and only a
     * regular file is taken (opened O_NONBLOCK, fstat S_ISREG). Returns 0, or negative when the file
     * cannot be opened or is not a regular file (then nothing is printed) or a write fails. */
    int Output(const char *szPath, const char *szMimeType);
    /* The same from a descriptor the caller opened (the library opens store files link-safely itself);
     * does not close it; reads from offset 0 with pread, whatever the descriptor's offset. */
    int Output(int fd, const char *szMimeType);
    /* A slice of the file from a descriptor, for ranged and head-only answers: "Content-Type: <mime>\r\n",
     * "Content-Length: <length>\r\n", then szExtraLines as given (whole header lines, each ended by CR LF;
     * NULL or "" for none), the empty line, and with blBody the length bytes from offset, streamed like the
     * whole file (pread, fixed chunks). A negative length means up to the end of the file. Returns 0, or
     * negative when fd is not a regular file or the slice does not lie within the file (then nothing is
     * printed, errno EINVAL) or a write fails. */
    int Output(int fd, const char *szMimeType, long long offset, long long length, bool blBody,
               const char *szExtraLines);
};

namespace KOLV {
class KOLV_PLATFORM_API WebAPIUtil {
  public:
    /* Percent-encoding of every byte except A-Z a-z 0-9 and "-_.~" (RFC 3986 unreserved), upper-case hex. */
    static std::string URLEncode(const std::string &str);
};
} // namespace KOLV

#endif // KOLV_WEB_H
