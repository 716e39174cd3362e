// Scripted PC/SC stand-in, built as libpcsclite.so.1 for the tests.
//
// It implements the 17 PC/SC functions that the library resolves, with pcsc-lite's signatures.
// Every call is recorded as one text line, and every answer comes from a script that the test sets.
//
// Loading. The library under test dlopens "libpcsclite.so.1". A C++ test dlopens this file by its
// path (RTLD_NOW | RTLD_GLOBAL) before that: the soname matches, so both get the same object and
// the test can script it through the extern "C" control functions below. A Java test calls
// kor.plox.ldm.PcscStandin, whose natives live here too; the JVM runs with LD_LIBRARY_PATH
// pointing at the variant's directory (tests/standin/full, tests/standin/partial,
// tests/standin/broken in the build tree).
//
// Control API (C):
//   void   standin_reset(void)                 forget script, records, counters; end blocked calls
//   void   standin_script(const char* line)    add an answer, e.g. "SCardTransmit rc=0x0 recv=9000"
//   size_t standin_calls(char* buf, size_t n)  records joined by '\n' (NUL-terminated when it fits);
//                                              returns the size needed including the NUL
//   int    standin_call_count(void)
//   int    standin_wait_blocked(int n, int ms) 1 once n GetStatusChange calls are blocked
//   void   standin_release_blocked(void)       ends every blocked GetStatusChange (SCARD_E_CANCELLED)
// Java (kor.plox.ldm.PcscStandin): reset(), script(String), calls() -> String[],
//   waitBlocked(int, int) -> boolean, releaseBlocked().
//
// Script. A line is "<function> key=value ...". Values are numbers (0x.. or decimal), hex bytes
// (recv=9000), or "quoted text" where '|' stands for a NUL (names="A|B" is the multi-string
// "A\0B\0\0"). Each function has its own queue of answers: a call takes the front answer, and the
// last one stays and answers every later call. With no answer, a call succeeds with default
// outputs. Keys:
//   every function      rc=      result returned (default 0, or the buffer checks below)
//   SCardEstablishContext context=  (default 0xc0000001, 0xc0000002, ...)
//   SCardConnect        card= (default 0xca000001, ...) protocol= (default 0x1)
//   SCardReconnect      protocol=
//   SCardStatus         names="..." (default "Standin Reader 00 00") state= protocol= atr=
//   SCardGetStatusChange block=1 (wait until SCardCancel/SCardReleaseContext of that context or
//                       standin_release_blocked; then rc SCARD_E_CANCELLED unless rc= given)
//                       event<i>= atr<i>= for reader i (others keep their event state and ATR)
//   SCardControl, SCardTransmit  recv=  (Transmit also recv_pci=<protocol>: written when given)
//   SCardListReaderGroups, SCardListReaders  names="..."
//   SCardGetAttrib      attr=
// Buffers follow PC/SC: a null buffer gets the length only; SCARD_AUTOALLOCATE (where PC/SC offers
// it) gets a block that lives until the next reset; a buffer too small gets the needed length and
// SCARD_E_INSUFFICIENT_BUFFER.
//
// Records: one line per call, fields in parameter order, handles and DWORDs as 64-bit "0x%llx",
// buffers as upper-case hex, texts quoted, pointers as "null" or "ptr", e.g.
//   SCardTransmit card=0xca000001 send_pci=0x1/0x10 send=00A4040000 recv_pci=null recv_len=0x102
//   SCardGetStatusChange ctx=0xc0000001 timeout=0xffffffff count=0x1 reader0="R" current0=0x0 event0=0x0 atr0=
// Building with STANDIN_PARTIAL leaves out SCardEstablishContext, SCardListReaders and
// SCardTransmit.
#include <jni.h>
#include <winscard.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace {

using bytes = std::vector<unsigned char>;

struct c_answer {
    std::map<std::string, std::string> values;

    bool has(const std::string& k) const { return values.count(k) != 0; }
    unsigned long long number(const std::string& k, unsigned long long fallback) const {
        auto it = values.find(k);
        return it == values.end() ? fallback : std::strtoull(it->second.c_str(), nullptr, 0);
    }
    // Quoted text ('|' = NUL) or hex bytes.
    bytes data(const std::string& k, const bytes& fallback) const {
        auto it = values.find(k);
        if (it == values.end()) return fallback;
        const std::string& v = it->second;
        bytes out;
        if (!v.empty() && v[0] == '"') {
            for (std::size_t i = 1; i < v.size(); ++i) out.push_back(v[i] == '|' ? 0 : static_cast<unsigned char>(v[i]));
            return out;
        }
        for (std::size_t i = 0; i + 1 < v.size(); i += 2)
            out.push_back(static_cast<unsigned char>(std::strtoul(v.substr(i, 2).c_str(), nullptr, 16)));
        return out;
    }
};

struct c_state {
    std::mutex mutex;
    std::condition_variable changed;
    std::map<std::string, std::deque<c_answer>> script;
    std::vector<std::string> calls;
    std::map<SCARDCONTEXT, unsigned> cancels;  // per context: SCardCancel / SCardReleaseContext count
    unsigned release_all = 0;
    int blocked = 0;
    unsigned long long next_context = 0xc0000001;
    unsigned long long next_card = 0xca000001;
    std::vector<void*> allocated;
};

c_state& state() {
    static c_state* s = new c_state();  // never destroyed: blocked threads may outlive unload
    return *s;
}

c_answer parse(const char* line, std::string& function) {
    c_answer a;
    const std::string s(line ? line : "");
    std::size_t i = s.find_first_not_of(' ');
    std::size_t e = s.find(' ', i);
    function = s.substr(i == std::string::npos ? 0 : i, e == std::string::npos ? std::string::npos : e - i);
    i = e;
    while (i != std::string::npos && i < s.size()) {
        i = s.find_first_not_of(' ', i);
        if (i == std::string::npos) break;
        const std::size_t eq = s.find('=', i);
        if (eq == std::string::npos) break;
        const std::string key = s.substr(i, eq - i);
        std::size_t end;
        if (eq + 1 < s.size() && s[eq + 1] == '"') {
            end = s.find('"', eq + 2);
            a.values[key] = s.substr(eq + 1, end == std::string::npos ? std::string::npos : end - eq - 1);
            i = end == std::string::npos ? end : end + 1;
        } else {
            end = s.find(' ', eq + 1);
            a.values[key] = s.substr(eq + 1, end == std::string::npos ? std::string::npos : end - eq - 1);
            i = end;
        }
    }
    return a;
}

// Takes the answer for `function` (the last one stays); empty when none was scripted.
c_answer next_answer(const char* function) {
    std::lock_guard<std::mutex> l(state().mutex);
    auto& q = state().script[function];
    if (q.empty()) return {};
    c_answer a = q.front();
    if (q.size() > 1) q.pop_front();
    return a;
}

void record(const std::string& line) {
    std::lock_guard<std::mutex> l(state().mutex);
    state().calls.push_back(line);
}

// Field formatting for records.
std::string num(unsigned long long v) {
    char b[32];
    std::snprintf(b, sizeof b, "0x%llx", v);
    return b;
}
std::string hex(const void* p, std::size_t n) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    const auto* b = static_cast<const unsigned char*>(p);
    for (std::size_t i = 0; p && i < n; ++i) {
        out += digits[b[i] >> 4];
        out += digits[b[i] & 15];
    }
    return out;
}
std::string text(const char* s) { return s ? "\"" + std::string(s) + "\"" : "null"; }
std::string ptr(const void* p) { return p ? "ptr" : "null"; }
std::string len(const DWORD* p) { return p ? num(*p) : "null"; }

std::string multistring(const c_answer& a, const char* fallback) {
    std::string names(fallback);
    if (a.has("names")) {
        bytes b = a.data("names", {});
        names.assign(b.begin(), b.end());
    }
    return names;
}
// "A|B" from the script is "A\0B"; a multi-string ends with two NULs.
bytes as_multistring(const std::string& names) {
    bytes out(names.begin(), names.end());
    out.push_back(0);
    out.push_back(0);
    return out;
}

// Hands `data` to a PC/SC buffer with its in/out length. Returns 0 or SCARD_E_INSUFFICIENT_BUFFER.
LONG deliver(const bytes& data, void* buffer, DWORD* length, bool may_allocate) {
    if (!length) return SCARD_S_SUCCESS;
    const auto need = static_cast<DWORD>(data.size());
    if (!buffer) {
        *length = need;
        return SCARD_S_SUCCESS;
    }
    if (may_allocate && *length == SCARD_AUTOALLOCATE) {
        void* block = std::malloc(data.size() ? data.size() : 1);
        if (!data.empty()) std::memcpy(block, data.data(), data.size());
        {
            std::lock_guard<std::mutex> l(state().mutex);
            state().allocated.push_back(block);
        }
        *static_cast<void**>(buffer) = block;
        *length = need;
        return SCARD_S_SUCCESS;
    }
    if (*length < need) {
        *length = need;
        return SCARD_E_INSUFFICIENT_BUFFER;
    }
    if (!data.empty()) std::memcpy(buffer, data.data(), data.size());
    *length = need;
    return SCARD_S_SUCCESS;
}

LONG result(const c_answer& a, LONG computed) { return static_cast<LONG>(a.number("rc", static_cast<unsigned long long>(computed))); }

std::string all_calls() {
    std::lock_guard<std::mutex> l(state().mutex);
    std::string out;
    for (const auto& c : state().calls) {
        if (!out.empty()) out += '\n';
        out += c;
    }
    return out;
}

}  // namespace

extern "C" {

// ---- control API -----------------------------------------------------------------------------

void standin_reset(void) {
    c_state& s = state();
    std::lock_guard<std::mutex> l(s.mutex);
    s.script.clear();
    s.calls.clear();
    s.cancels.clear();
    s.next_context = 0xc0000001;
    s.next_card = 0xca000001;
    for (void* p : s.allocated) std::free(p);
    s.allocated.clear();
    ++s.release_all;
    s.changed.notify_all();
}

void standin_script(const char* line) {
    std::string function;
    c_answer a = parse(line, function);
    std::lock_guard<std::mutex> l(state().mutex);
    state().script[function].push_back(std::move(a));
}

size_t standin_calls(char* buffer, size_t capacity) {
    const std::string all = all_calls();
    if (buffer && capacity > all.size()) std::memcpy(buffer, all.c_str(), all.size() + 1);
    return all.size() + 1;
}

int standin_call_count(void) {
    std::lock_guard<std::mutex> l(state().mutex);
    return static_cast<int>(state().calls.size());
}

int standin_wait_blocked(int n, int ms) {
    std::unique_lock<std::mutex> l(state().mutex);
    return state().changed.wait_for(l, std::chrono::milliseconds(ms), [&] { return state().blocked >= n; }) ? 1 : 0;
}

void standin_release_blocked(void) {
    std::lock_guard<std::mutex> l(state().mutex);
    ++state().release_all;
    state().changed.notify_all();
}

// ---- PC/SC -------------------------------------------------------------------------------------

#ifndef STANDIN_PARTIAL
LONG SCardEstablishContext(DWORD dwScope, LPCVOID pvReserved1, LPCVOID pvReserved2, LPSCARDCONTEXT phContext) {
    record("SCardEstablishContext scope=" + num(dwScope) + " r1=" + ptr(pvReserved1) + " r2=" + ptr(pvReserved2) +
           " ctx_out=" + ptr(phContext));
    const c_answer a = next_answer("SCardEstablishContext");
    unsigned long long fallback;
    {
        std::lock_guard<std::mutex> l(state().mutex);
        fallback = state().next_context++;
    }
    if (phContext) *phContext = static_cast<SCARDCONTEXT>(a.number("context", fallback));
    return result(a, SCARD_S_SUCCESS);
}
#endif

static void cancel_context(SCARDCONTEXT ctx) {
    std::lock_guard<std::mutex> l(state().mutex);
    ++state().cancels[ctx];
    state().changed.notify_all();
}

LONG SCardReleaseContext(SCARDCONTEXT hContext) {
    record("SCardReleaseContext ctx=" + num(hContext));
    cancel_context(hContext);
    return result(next_answer("SCardReleaseContext"), SCARD_S_SUCCESS);
}

LONG SCardIsValidContext(SCARDCONTEXT hContext) {
    record("SCardIsValidContext ctx=" + num(hContext));
    return result(next_answer("SCardIsValidContext"), SCARD_S_SUCCESS);
}

LONG SCardCancel(SCARDCONTEXT hContext) {
    record("SCardCancel ctx=" + num(hContext));
    cancel_context(hContext);
    return result(next_answer("SCardCancel"), SCARD_S_SUCCESS);
}

LONG SCardConnect(SCARDCONTEXT hContext, LPCSTR szReader, DWORD dwShareMode, DWORD dwPreferredProtocols,
                  LPSCARDHANDLE phCard, LPDWORD pdwActiveProtocol) {
    record("SCardConnect ctx=" + num(hContext) + " reader=" + text(szReader) + " share=" + num(dwShareMode) +
           " protocols=" + num(dwPreferredProtocols) + " card_out=" + ptr(phCard) + " protocol_out=" +
           ptr(pdwActiveProtocol));
    const c_answer a = next_answer("SCardConnect");
    unsigned long long fallback;
    {
        std::lock_guard<std::mutex> l(state().mutex);
        fallback = state().next_card++;
    }
    if (phCard) *phCard = static_cast<SCARDHANDLE>(a.number("card", fallback));
    if (pdwActiveProtocol) *pdwActiveProtocol = static_cast<DWORD>(a.number("protocol", SCARD_PROTOCOL_T0));
    return result(a, SCARD_S_SUCCESS);
}

LONG SCardReconnect(SCARDHANDLE hCard, DWORD dwShareMode, DWORD dwPreferredProtocols, DWORD dwInitialization,
                    LPDWORD pdwActiveProtocol) {
    record("SCardReconnect card=" + num(hCard) + " share=" + num(dwShareMode) + " protocols=" +
           num(dwPreferredProtocols) + " init=" + num(dwInitialization) + " protocol_out=" + ptr(pdwActiveProtocol));
    const c_answer a = next_answer("SCardReconnect");
    if (pdwActiveProtocol) *pdwActiveProtocol = static_cast<DWORD>(a.number("protocol", SCARD_PROTOCOL_T0));
    return result(a, SCARD_S_SUCCESS);
}

LONG SCardDisconnect(SCARDHANDLE hCard, DWORD dwDisposition) {
    record("SCardDisconnect card=" + num(hCard) + " disposition=" + num(dwDisposition));
    return result(next_answer("SCardDisconnect"), SCARD_S_SUCCESS);
}

LONG SCardBeginTransaction(SCARDHANDLE hCard) {
    record("SCardBeginTransaction card=" + num(hCard));
    return result(next_answer("SCardBeginTransaction"), SCARD_S_SUCCESS);
}

LONG SCardEndTransaction(SCARDHANDLE hCard, DWORD dwDisposition) {
    record("SCardEndTransaction card=" + num(hCard) + " disposition=" + num(dwDisposition));
    return result(next_answer("SCardEndTransaction"), SCARD_S_SUCCESS);
}

LONG SCardStatus(SCARDHANDLE hCard, LPSTR szReaderName, LPDWORD pcchReaderLen, LPDWORD pdwState, LPDWORD pdwProtocol,
                 LPBYTE pbAtr, LPDWORD pcbAtrLen) {
    record("SCardStatus card=" + num(hCard) + " names=" + ptr(szReaderName) + " names_len=" + len(pcchReaderLen) +
           " state=" + ptr(pdwState) + " protocol=" + ptr(pdwProtocol) + " atr=" + ptr(pbAtr) + " atr_len=" +
           len(pcbAtrLen));
    const c_answer a = next_answer("SCardStatus");
    bytes name = a.data("names", {});
    if (!a.has("names")) {
        const char* d = "Standin Reader 00 00";
        name.assign(d, d + std::strlen(d));
    }
    name.push_back(0);
    const LONG r1 = deliver(name, szReaderName, pcchReaderLen, true);
    const LONG r2 = deliver(a.data("atr", {0x3B, 0x00}), pbAtr, pcbAtrLen, true);
    if (pdwState) *pdwState = static_cast<DWORD>(a.number("state", SCARD_PRESENT | SCARD_POWERED | SCARD_NEGOTIABLE));
    if (pdwProtocol) *pdwProtocol = static_cast<DWORD>(a.number("protocol", SCARD_PROTOCOL_T0));
    return result(a, r1 ? r1 : r2);
}

LONG SCardGetStatusChange(SCARDCONTEXT hContext, DWORD dwTimeout, SCARD_READERSTATE* rgReaderStates, DWORD cReaders) {
    std::string line = "SCardGetStatusChange ctx=" + num(hContext) + " timeout=" + num(dwTimeout) + " count=" +
                       num(cReaders);
    for (DWORD i = 0; rgReaderStates && i < cReaders; ++i) {
        const SCARD_READERSTATE& r = rgReaderStates[i];
        const std::string n = std::to_string(i);
        line += " reader" + n + "=" + text(r.szReader) + " current" + n + "=" + num(r.dwCurrentState) + " event" + n +
                "=" + num(r.dwEventState) + " atr" + n + "=" + hex(r.rgbAtr, r.cbAtr <= MAX_ATR_SIZE ? r.cbAtr : 0);
    }
    record(line);
    const c_answer a = next_answer("SCardGetStatusChange");
    LONG r = SCARD_S_SUCCESS;
    if (a.number("block", 0)) {
        c_state& s = state();
        std::unique_lock<std::mutex> l(s.mutex);
        const unsigned cancels = s.cancels[hContext];
        const unsigned release_all = s.release_all;
        ++s.blocked;
        s.changed.notify_all();
        const bool ended = s.changed.wait_for(l, std::chrono::seconds(60), [&] {
            return s.cancels[hContext] != cancels || s.release_all != release_all;
        });
        --s.blocked;
        r = ended ? static_cast<LONG>(SCARD_E_CANCELLED) : static_cast<LONG>(SCARD_E_TIMEOUT);
    }
    for (DWORD i = 0; rgReaderStates && i < cReaders; ++i) {
        const std::string n = std::to_string(i);
        SCARD_READERSTATE& rs = rgReaderStates[i];
        if (a.has("event" + n)) rs.dwEventState = static_cast<DWORD>(a.number("event" + n, 0));
        if (a.has("atr" + n)) {
            const bytes atr = a.data("atr" + n, {});
            rs.cbAtr = static_cast<DWORD>(atr.size() < MAX_ATR_SIZE ? atr.size() : MAX_ATR_SIZE);
            std::memcpy(rs.rgbAtr, atr.data(), rs.cbAtr);
        }
    }
    return result(a, r);
}

LONG SCardControl(SCARDHANDLE hCard, DWORD dwControlCode, LPCVOID pbSendBuffer, DWORD cbSendLength,
                  LPVOID pbRecvBuffer, DWORD cbRecvLength, LPDWORD lpBytesReturned) {
    record("SCardControl card=" + num(hCard) + " code=" + num(dwControlCode) + " send=" +
           hex(pbSendBuffer, cbSendLength) + " send_len=" + num(cbSendLength) + " recv=" + ptr(pbRecvBuffer) +
           " recv_len=" + num(cbRecvLength) + " returned=" + ptr(lpBytesReturned));
    const c_answer a = next_answer("SCardControl");
    const bytes out = a.data("recv", {});
    DWORD n = cbRecvLength;
    LONG r = SCARD_S_SUCCESS;
    if (pbRecvBuffer && out.size() > cbRecvLength) {
        r = SCARD_E_INSUFFICIENT_BUFFER;
    } else if (pbRecvBuffer) {
        if (!out.empty()) std::memcpy(pbRecvBuffer, out.data(), out.size());
    }
    n = static_cast<DWORD>(out.size());
    if (lpBytesReturned) *lpBytesReturned = n;
    return result(a, r);
}

#ifndef STANDIN_PARTIAL
LONG SCardTransmit(SCARDHANDLE hCard, const SCARD_IO_REQUEST* pioSendPci, LPCBYTE pbSendBuffer, DWORD cbSendLength,
                   SCARD_IO_REQUEST* pioRecvPci, LPBYTE pbRecvBuffer, LPDWORD pcbRecvLength) {
    std::string pci = "null";
    if (pioSendPci) {
        pci = num(pioSendPci->dwProtocol) + "/" + num(pioSendPci->cbPciLength);
    }
    record("SCardTransmit card=" + num(hCard) + " send_pci=" + pci + " send=" + hex(pbSendBuffer, cbSendLength) +
           " recv_pci=" + (pioRecvPci ? num(pioRecvPci->dwProtocol) + "/" + num(pioRecvPci->cbPciLength) : "null") +
           " recv=" + ptr(pbRecvBuffer) + " recv_len=" + len(pcbRecvLength));
    const c_answer a = next_answer("SCardTransmit");
    const LONG r = deliver(a.data("recv", {0x90, 0x00}), pbRecvBuffer, pcbRecvLength, false);
    if (pioRecvPci && a.has("recv_pci")) {
        pioRecvPci->dwProtocol = a.number("recv_pci", 0);
        pioRecvPci->cbPciLength = sizeof(SCARD_IO_REQUEST);
    }
    return result(a, r);
}
#endif

LONG SCardListReaderGroups(SCARDCONTEXT hContext, LPSTR mszGroups, LPDWORD pcchGroups) {
    record("SCardListReaderGroups ctx=" + num(hContext) + " groups=" + ptr(mszGroups) + " len=" + len(pcchGroups));
    const c_answer a = next_answer("SCardListReaderGroups");
    return result(a, deliver(as_multistring(multistring(a, "SCard$DefaultReaders")), mszGroups, pcchGroups, true));
}

#ifndef STANDIN_PARTIAL
LONG SCardListReaders(SCARDCONTEXT hContext, LPCSTR mszGroups, LPSTR mszReaders, LPDWORD pcchReaders) {
    record("SCardListReaders ctx=" + num(hContext) + " groups=" + text(mszGroups) + " readers=" + ptr(mszReaders) +
           " len=" + len(pcchReaders));
    const c_answer a = next_answer("SCardListReaders");
    return result(a, deliver(as_multistring(multistring(a, "Standin Reader 00 00")), mszReaders, pcchReaders, true));
}
#endif

LONG SCardFreeMemory(SCARDCONTEXT, LPCVOID) { return SCARD_S_SUCCESS; }

LONG SCardGetAttrib(SCARDHANDLE hCard, DWORD dwAttrId, LPBYTE pbAttr, LPDWORD pcbAttrLen) {
    record("SCardGetAttrib card=" + num(hCard) + " attr=" + num(dwAttrId) + " buf=" + ptr(pbAttr) + " len=" +
           len(pcbAttrLen));
    const c_answer a = next_answer("SCardGetAttrib");
    return result(a, deliver(a.data("attr", {}), pbAttr, pcbAttrLen, true));
}

LONG SCardSetAttrib(SCARDHANDLE hCard, DWORD dwAttrId, LPCBYTE pbAttr, DWORD cbAttrLen) {
    record("SCardSetAttrib card=" + num(hCard) + " attr=" + num(dwAttrId) + " data=" + hex(pbAttr, cbAttrLen) +
           " len=" + num(cbAttrLen));
    return result(next_answer("SCardSetAttrib"), SCARD_S_SUCCESS);
}

// ---- Java: kor.plox.ldm.PcscStandin ------------------------------------------------------------

JNIEXPORT void JNICALL Java_kor_plox_ldm_PcscStandin_reset(JNIEnv*, jclass) { standin_reset(); }

JNIEXPORT void JNICALL Java_kor_plox_ldm_PcscStandin_script(JNIEnv* env, jclass, jstring line) {
    const char* s = env->GetStringUTFChars(line, nullptr);
    if (!s) return;
    standin_script(s);
    env->ReleaseStringUTFChars(line, s);
}

JNIEXPORT jobjectArray JNICALL Java_kor_plox_ldm_PcscStandin_calls(JNIEnv* env, jclass) {
    std::vector<std::string> copy;
    {
        std::lock_guard<std::mutex> l(state().mutex);
        copy = state().calls;
    }
    jclass string_class = env->FindClass("java/lang/String");
    if (!string_class) return nullptr;
    jobjectArray out = env->NewObjectArray(static_cast<jsize>(copy.size()), string_class, nullptr);
    for (std::size_t i = 0; out && i < copy.size(); ++i) {
        jstring s = env->NewStringUTF(copy[i].c_str());
        if (!s) return nullptr;
        env->SetObjectArrayElement(out, static_cast<jsize>(i), s);
        env->DeleteLocalRef(s);
    }
    return out;
}

JNIEXPORT jboolean JNICALL Java_kor_plox_ldm_PcscStandin_waitBlocked(JNIEnv*, jclass, jint n, jint ms) {
    return standin_wait_blocked(n, ms) ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT void JNICALL Java_kor_plox_ldm_PcscStandin_releaseBlocked(JNIEnv*, jclass) { standin_release_blocked(); }

}  // extern "C"
