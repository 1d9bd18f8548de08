#include "znhas/sec_utf8.h"

#include <iconv.h>
#include <langinfo.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "znhas/sec_messages.h"
#include "znhas/znhas.h"

namespace {

// iconv_open's failure value.
const iconv_t kBadHandle = reinterpret_cast<iconv_t>(-1);

std::mutex& convMutex() {
    static std::mutex m;
    return m;
}
iconv_t hto_utf8_hdl = kBadHandle;
iconv_t hfrom_utf8_hdl = kBadHandle;

// Opens both handles; the caller holds the mutex.
int sec__open_utf8_hdl(const char* fn) {
    if (hto_utf8_hdl != kBadHandle && hfrom_utf8_hdl != kBadHandle) {
        return 0;
    }
    const char* codeset = nl_langinfo(CODESET);
    if (codeset == nullptr || *codeset == '\0') {
        codeset = "ANSI_X3.4-1968";
    }
    if (hto_utf8_hdl == kBadHandle) {
        hto_utf8_hdl = iconv_open("UTF-8", codeset);
    }
    if (hfrom_utf8_hdl == kBadHandle) {
        hfrom_utf8_hdl = iconv_open(codeset, "UTF-8");
    }
    if (hto_utf8_hdl == kBadHandle || hfrom_utf8_hdl == kBadHandle) {
        return znhas::secInternal(fn, "iconv_open", errno);
    }
    return 0;
}

int convert(const char* fn, iconv_t* hdl, const char* in, std::string* out) {
    if (in == nullptr || out == nullptr) {
        return znhas::secBadParam(fn, 1, ZNHAS_E_INTERNAL);
    }
    std::lock_guard<std::mutex> lock(convMutex());
    int rc = sec__open_utf8_hdl(fn);
    if (rc != 0) {
        return rc;
    }
    size_t inLeft = std::strlen(in);
    // UTF-8 needs at most four bytes for a character of any code set.
    std::string buf(inLeft * 4 + 4, '\0');
    char* src = const_cast<char*>(in);
    char* dst = buf.data();
    size_t outLeft = buf.size();
    iconv(*hdl, nullptr, nullptr, nullptr, nullptr);  // reset shift state
    if (iconv(*hdl, &src, &inLeft, &dst, &outLeft) == static_cast<size_t>(-1) ||
        iconv(*hdl, nullptr, nullptr, &dst, &outLeft) == static_cast<size_t>(-1)) {
        int err = errno;
        iconv(*hdl, nullptr, nullptr, nullptr, nullptr);
        if (err == EILSEQ || err == EINVAL) {
            return znhas::secBadParam(fn, 1, ZNHAS_E_BADPARAM);
        }
        return znhas::secInternal(fn, "iconv", err);
    }
    buf.resize(buf.size() - outLeft);
    *out = std::move(buf);
    return 0;
}

}  // namespace

int sec__setup_utf8_hdls(const char* fn) {
    std::lock_guard<std::mutex> lock(convMutex());
    return sec__open_utf8_hdl(fn);
}

void sec__close_utf8_hdls() {
    std::lock_guard<std::mutex> lock(convMutex());
    if (hto_utf8_hdl != kBadHandle) {
        iconv_close(hto_utf8_hdl);
        hto_utf8_hdl = kBadHandle;
    }
    if (hfrom_utf8_hdl != kBadHandle) {
        iconv_close(hfrom_utf8_hdl);
        hfrom_utf8_hdl = kBadHandle;
    }
}

int sec__conv_str_to_utf8(const char* fn, const char* in, std::string* out) {
    return convert(fn, &hto_utf8_hdl, in, out);
}

int sec__conv_utf8_to_str(const char* fn, const char* in, std::string* out) {
    return convert(fn, &hfrom_utf8_hdl, in, out);
}
