// The smart card handlers, call by call, against the PC/SC fakes: every case of the data files
// tests/data/scard/*.cases (their format is described in tests/data/scard/README) gives a request,
// how PC/SC answers, the PC/SC calls expected and the reply expected byte for byte.
#include <filesystem>
#include <fstream>
#include <map>

#include "scard_fakes.h"

namespace {

using namespace scard_test;

// Words of a line; [...], {...} and "..." stay whole.
std::vector<std::string> words(const std::string& line) {
    std::vector<std::string> out;
    std::string word;
    char close = 0;
    for (char ch : line) {
        if (!close && std::isspace(static_cast<unsigned char>(ch))) {
            if (!word.empty()) out.push_back(word), word.clear();
            continue;
        }
        if (close && ch == close) close = 0;
        else if (!close && (ch == '[' || ch == '{' || ch == '"')) close = ch == '[' ? ']' : ch == '{' ? '}' : '"';
        word += ch;
    }
    if (!word.empty()) out.push_back(word);
    return out;
}

std::uint64_t number(const std::string& s) { return std::stoull(s, nullptr, 0); }

void put_u32(bytes& b, std::uint64_t v) {
    if (v > 0xFFFFFFFFu) throw std::invalid_argument("not a 32-bit field: " + std::to_string(v));
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}
void pad4(bytes& b, std::size_t n) {
    while (n++ % 4) b.push_back(0);
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
    if (v[0] == '#') {
        put_u32(b, 4), put_u32(b, number(v.substr(1)));
    } else if (v[0] == '[') {
        const bytes raw = octet_list(v);
        b.insert(b.end(), raw.begin(), raw.end());
    } else if (v[0] == '{') {
        const bytes raw = octet_list(v);
        put_u32(b, raw.size()), b.insert(b.end(), raw.begin(), raw.end()), pad4(b, raw.size());
    } else if (v[0] == '"' || v[0] == 'w') {
        const bool wide = v[0] == 'w';
        const auto text = units(wide ? v.substr(1) : v);
        put_u32(b, text.size()), put_u32(b, 0), put_u32(b, text.size());
        for (auto u : text) {
            b.push_back(static_cast<std::uint8_t>(u));
            if (wide) b.push_back(static_cast<std::uint8_t>(u >> 8));
        }
        pad4(b, text.size() * (wide ? 2 : 1));
    } else {
        put_u32(b, number(v));
    }
}

struct c_case {
    int line = 0;
    std::string title;
    std::uint32_t code = 0;
    std::int32_t owner = 1;
    bool own_header = false;  // the request's fields begin with its header
    bytes request_fields, reply_fields;
    std::string reply;  // the result, "error <message>" or "none"
    std::vector<std::string> pcsc;
    c_script script;
};

void set_script(c_script& s, const std::string& word) {
    const auto eq = word.find('=');
    const std::string key = word.substr(0, eq), v = word.substr(eq + 1);
    if (key == "results") {
        std::stringstream list(v);
        for (std::string r; std::getline(list, r, ',');) s.results.push_back(static_cast<LONG>(number(r)));
    } else if (key == "out") {
        if (v[0] == '[') s.out = octet_list(v);
        for (auto u : v[0] == '"' ? units(v) : std::vector<std::uint32_t>{}) s.out.push_back(static_cast<std::uint8_t>(u));
    } else if (key == "handle") {
        s.handle = static_cast<SCARDHANDLE>(number(v));
    } else {
        const std::map<std::string, std::uint64_t*> numbers = {
            {"report", &s.report}, {"protocol", &s.protocol}, {"block", &s.block}, {"pci_extra", &s.pci_extra}};
        *numbers.at(key) = number(v);
    }
}

void run(const c_case& c) {
    SCOPED_TRACE("line " + std::to_string(c.line) + ": " + c.title);
    ASSERT_FALSE(c.reply.empty()) << "no reply line";
    g_script = c.script;
    g_calls.clear();
    const bytes req = c.own_header ? c.request_fields : request().raw(c.request_fields).build();
    if (c.reply.rfind("error ", 0) == 0) {
        try {
            call(c.code, req, c.owner);
            ADD_FAILURE() << "no failure";
        } catch (const std::runtime_error& e) {
            EXPECT_EQ("error " + std::string(e.what()), c.reply);
        }
    } else {
        bytes expected;
        if (c.reply != "none") {
            put_u32(expected, number(c.reply));
            expected.insert(expected.end(), c.reply_fields.begin(), c.reply_fields.end());
            while (expected.size() % 8) expected.push_back(0);
            expected = request().raw(expected).build();  // a reply's header has the request's form
        }
        const bytes got = call(c.code, req, c.owner);
        EXPECT_EQ(octets(got.data(), got.size()), octets(expected.data(), expected.size()));
    }
    EXPECT_EQ(g_calls, c.pcsc);
}

class ScardCases : public ::testing::TestWithParam<std::string> {
protected:
    void TearDown() override { delete g_scard_service.exchange(nullptr); }
};

// Reads a case file line by line; a case runs when the next line that is not part of it comes.
class c_case_file {
public:
    void line(const std::string& text, int line_no) {
        const std::vector<std::string> w = words(text);
        if (w.empty() || w[0][0] == '#') return;
        const std::string& key = w[0];
        const std::size_t at = text.find_first_not_of(" \t", text.find(key) + key.size());
        const std::string rest = at == std::string::npos ? "" : text.substr(at);
        if (key == "call" || key == "request" || key == "script" || key == "pcsc" || key == "reply") {
            if (!have_case_) throw std::invalid_argument("outside a case");
            case_part(key, w, rest);
            return;
        }
        flush();
        if (key == "==") {
            delete g_scard_service.exchange(fake_service());
        } else if (key == "missing") {
            delete g_scard_service.exchange(fake_service(std::set<std::string>(w.begin() + 1, w.end())));
        } else if (key == "--") {
            case_ = c_case{};
            case_.line = line_no, case_.title = rest;
            have_case_ = true;
        } else if (key == "context") {
            scard_service().add_context(static_cast<std::int32_t>(number(w.at(1))), static_cast<SCARDCONTEXT>(number(w.at(2))));
        } else if (key == "card") {
            scard_service().add_card(static_cast<std::int32_t>(number(w.at(1))), static_cast<SCARDHANDLE>(number(w.at(2))));
        } else if (key == "reader") {
            std::string name;
            for (auto u : units(w.at(3))) name += static_cast<char>(u);
            scard_service().add_reader(static_cast<SCARDHANDLE>(number(w.at(1))), static_cast<std::uint32_t>(number(w.at(2))),
                                       name.c_str());
        } else if (key == "cancel_owner") {
            scard_service().cancel_owner(static_cast<std::int32_t>(number(w.at(1))));
        } else {
            throw std::invalid_argument("unknown line " + key);
        }
    }
    void flush() {
        if (have_case_) run(case_);
        have_case_ = false;
    }

private:
    void case_part(const std::string& key, const std::vector<std::string>& w, const std::string& rest) {
        if (key == "call") {
            case_.code = static_cast<std::uint32_t>(number(w.at(1)));
            if (w.size() > 2) case_.owner = static_cast<std::int32_t>(number(w[2].substr(w[2].find('=') + 1)));
        } else if (key == "request") {
            for (std::size_t i = 1; i < w.size(); ++i) {
                case_.own_header |= w[i].rfind("header=", 0) == 0;
                field(case_.request_fields, w[i]);
            }
        } else if (key == "script") {
            for (std::size_t i = 1; i < w.size(); ++i) set_script(case_.script, w[i]);
        } else if (key == "pcsc") {
            case_.pcsc.push_back(rest);
        } else {
            const bool first = case_.reply.empty();
            if (first) case_.reply = w.at(1) == "error" ? rest : w.at(1);
            if (case_.reply.rfind("error", 0) == 0) return;
            for (std::size_t i = first ? 2 : 1; i < w.size(); ++i) field(case_.reply_fields, w[i]);
        }
    }
    c_case case_;
    bool have_case_ = false;
};

TEST_P(ScardCases, RepliesAndPcscCalls) {
    std::ifstream file(GetParam());
    ASSERT_TRUE(file) << GetParam();
    c_case_file cases;
    int line_no = 0;
    for (std::string text; std::getline(file, text);) {
        try {
            cases.line(text, ++line_no);
        } catch (const std::exception& e) {
            FAIL() << "line " << line_no << ": " << e.what();
        }
    }
    cases.flush();
}

std::vector<std::string> case_files() {
    std::vector<std::string> out;
    for (const auto& e : std::filesystem::directory_iterator(KORJNIDR_TEST_DATA "/scard"))
        if (e.path().extension() == ".cases") out.push_back(e.path().string());
    std::sort(out.begin(), out.end());
    return out;
}

INSTANTIATE_TEST_SUITE_P(Data, ScardCases, ::testing::ValuesIn(case_files()), [](const auto& info) {
    return std::filesystem::path(info.param).stem().string();
});

}  // namespace
