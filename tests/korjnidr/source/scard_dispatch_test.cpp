// The smart card handlers, call by call, against the PC/SC fakes: each case of the data files
// tests/data/scard/*.cases (format in tests/data/scard/README) gives a request, how PC/SC answers,
// the PC/SC calls expected and the reply expected byte for byte.
#include <malloc.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>

#include "scard_fakes.h"

namespace {

using namespace scard_test;

// Words of a line; [...], {...} and "..." stay whole.
std::vector<std::string> words(const std::string& line) {
    static const std::regex word(R"([^\s"\[{]*(\[[^\]]*\]|\{[^}]*\}|"[^"]*")|\S+)");
    std::vector<std::string> out;
    for (std::sregex_iterator i(line.begin(), line.end(), word), end; i != end; ++i) out.push_back(i->str());
    return out;
}

std::uint64_t number(const std::string& s) { return std::stoull(s, nullptr, 0); }

void put_u32(bytes& b, std::uint64_t v) {
    if (v > 0xFFFFFFFFu) throw std::invalid_argument("not a 32-bit field: " + std::to_string(v));
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

// "[3b 00*29]": hex bytes, each optionally repeated.
bytes octet_list(const std::string& s) {
    bytes out;
    for (const std::string& w : words(s.substr(1, s.size() - 2))) {
        const auto star = w.find('*');
        const auto n = star == std::string::npos ? 1 : number(w.substr(star + 1));
        out.insert(out.end(), n, static_cast<std::uint8_t>(std::stoul(w.substr(0, star), nullptr, 16)));
    }
    return out;
}

// The units of "text": characters, \0, \xHH, \uHHHH.
std::vector<std::uint32_t> units(const std::string& s) {
    std::vector<std::uint32_t> out;
    for (std::size_t i = 1; i + 1 < s.size(); ++i) {
        if (s[i] != '\\') {
            out.push_back(static_cast<std::uint8_t>(s[i]));
        } else if (s[++i] == '0') {
            out.push_back(0);
        } else {
            const std::size_t digits = s[i] == 'x' ? 2 : 4;
            out.push_back(static_cast<std::uint32_t>(std::stoul(s.substr(i + 1, digits), nullptr, 16)));
            i += digits;
        }
    }
    return out;
}

// One field: 7 or 0x7 (u32), #7 (handle array), [..] (bytes), {..} (byte array), "text" and
// w"text" (8- and 16-bit conformant varying strings). A name before '=' documents the field.
void field(bytes& b, const std::string& word) {
    const auto eq = word.find('=');
    const std::string v = eq < word.find_first_of("[{\"") ? word.substr(eq + 1) : word;
    bytes raw = v[0] == '[' || v[0] == '{' ? octet_list(v) : bytes{};
    std::size_t pad = 0;
    if (v[0] == '#') {
        put_u32(b, 4), put_u32(b, number(v.substr(1)));
    } else if (v[0] == '{') {
        put_u32(b, raw.size()), pad = raw.size();
    } else if (v[0] == '"' || v[0] == 'w') {
        const auto text = units(v.substr(v[0] == 'w'));
        put_u32(b, text.size()), put_u32(b, 0), put_u32(b, text.size());
        for (auto u : text) {
            raw.push_back(static_cast<std::uint8_t>(u));
            if (v[0] == 'w') raw.push_back(static_cast<std::uint8_t>(u >> 8));
        }
        pad = raw.size();
    } else if (v[0] != '[') {
        put_u32(b, number(v));
    }
    b.insert(b.end(), raw.begin(), raw.end());
    while (pad++ % 4) b.push_back(0);
}

void set_script(c_script& s, const std::string& word) {
    const auto eq = word.find('=');
    const std::string key = word.substr(0, eq), v = word.substr(eq + 1);
    std::stringstream list(v);
    if (key == "results")
        for (std::string r; std::getline(list, r, ',');) s.results.push_back(static_cast<LONG>(number(r)));
    else if (key == "out" && v[0] == '[')
        s.out = octet_list(v);
    else if (key == "out")
        for (auto u : units(v)) s.out.push_back(static_cast<std::uint8_t>(u));
    else
        *std::map<std::string, std::uint64_t*>{{"report", &s.report}, {"handle", &s.handle}, {"protocol", &s.protocol},
                                               {"block", &s.block}, {"pci_extra", &s.pci_extra}}
             .at(key) = number(v);
}

long long heap_in_use() {
    const struct mallinfo2 m = mallinfo2();
    return static_cast<long long>(m.uordblks + m.hblkhd);
}

struct c_case {
    int line = 0;
    std::string title, error;  // error: the codec message expected instead of a reply
    std::uint32_t code = 0;
    std::int32_t owner = 1;
    bool own_header = false, no_reply = false;
    bytes request, reply;  // reply: the result code and the fields after it
    std::vector<std::string> pcsc;
    c_script script;

    void run() const {
        SCOPED_TRACE("line " + std::to_string(line) + ": " + title);
        ASSERT_TRUE(no_reply || !error.empty() || !reply.empty()) << "no reply line";
        g_script = script;
        g_calls.clear();
        bytes got, expected = reply;
        std::string failure;
        const long long heap = heap_in_use();
        try {
            got = call(code, own_header ? request : scard_test::request().raw(request).build(), owner);
        } catch (const std::runtime_error& e) {
            failure = e.what();
        }
        EXPECT_EQ(failure, error);
        // Nothing PC/SC hands over is kept: a case that hands over a megabyte shows a leak here.
        EXPECT_LT(heap_in_use() - heap, 1 << 19) << "the heap grew";
        while (expected.size() % 8) expected.push_back(0);
        if (!reply.empty()) expected = scard_test::request().raw(expected).build();  // a reply's header has this form
        EXPECT_EQ(octets(got.data(), got.size()), octets(expected.data(), expected.size()));
        EXPECT_EQ(g_calls, pcsc);
    }
};

// One line of a case file. A case runs when a line that is not part of it comes.
void read_line(const std::string& text, int line_no, c_case& pending, bool& have_case) {
    const std::vector<std::string> w = words(text);
    if (w.empty() || w[0][0] == '#') return;
    const std::string& key = w[0];
    const std::string rest = text.substr(std::min(text.size(), text.find(key) + key.size() + 1));
    const auto arg = [&](std::size_t i) { return number(w.at(i)); };
    if (key == "call" || key == "request" || key == "script" || key == "pcsc" || key == "reply") {
        if (!have_case) throw std::invalid_argument("outside a case");
        if (key == "call") pending.code = static_cast<std::uint32_t>(arg(1));
        if (key == "call" && w.size() > 2) pending.owner = static_cast<std::int32_t>(number(w[2].substr(6)));
        if (key == "pcsc") pending.pcsc.push_back(rest);
        if (key == "reply" && pending.reply.empty() && (w.at(1) == "error" || w[1] == "none")) {
            pending.error = w[1] == "error" ? rest.substr(6) : "", pending.no_reply = w[1] == "none";
            return;
        }
        for (std::size_t i = 1; i < w.size() && key != "call" && key != "pcsc"; ++i) {
            if (key == "script") set_script(pending.script, w[i]);
            if (key == "request") pending.own_header |= w[i].rfind("header=", 0) == 0;
            if (key != "script") field(key == "request" ? pending.request : pending.reply, w[i]);
        }
        return;
    }
    static const std::set<std::string> steps = {"--", "==", "missing", "context", "card", "cancel_owner", "reader"};
    if (!steps.count(key)) throw std::invalid_argument("unknown line " + key);
    if (have_case) pending.run();
    have_case = key == "--";
    if (key == "--") pending = c_case{}, pending.line = line_no, pending.title = rest;
    if (key == "==") delete g_scard_service.exchange(with_fakes(new c_scard_service()));
    if (key == "missing") with_fakes(&scard_service(), std::set<std::string>(w.begin() + 1, w.end()));
    const auto owner = [&] { return static_cast<std::int32_t>(arg(1)); };
    if (key == "context") scard_service().add_context(owner(), static_cast<SCARDCONTEXT>(arg(2)));
    if (key == "card") scard_service().add_card(owner(), static_cast<SCARDHANDLE>(arg(2)));
    if (key == "cancel_owner") scard_service().cancel_owner(owner());
    if (key == "reader") {
        std::string name;
        for (auto u : units(w.at(3))) name += static_cast<char>(u);
        scard_service().add_reader(static_cast<SCARDHANDLE>(arg(1)), static_cast<std::uint32_t>(arg(2)), name.c_str());
    }
}

// Each file in turn, its groups and cases in file order.
TEST(ScardCases, RepliesAndPcscCalls) {
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(KORJNIDR_TEST_DATA "/scard")) {
        if (entry.path().extension() != ".cases") continue;
        SCOPED_TRACE(entry.path().filename().string());
        std::ifstream file(entry.path());
        ++files;
        c_case pending;
        bool have_case = false;
        int line_no = 0;
        for (std::string text; std::getline(file, text);) {
            try {
                read_line(text, ++line_no, pending, have_case);
            } catch (const std::exception& e) {
                ADD_FAILURE() << "line " << line_no << ": " << e.what();
                have_case = false;
                break;
            }
        }
        if (have_case) pending.run();
        delete g_scard_service.exchange(nullptr);
    }
    EXPECT_GT(files, 0);
}

}  // namespace
