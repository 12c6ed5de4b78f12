// Fixture volume access for tests: locating images, parsing manifests and
// hashing content.  See fixture.h for the contract.
#include "fixture.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string_view>

namespace ntfs::test {

namespace {

#ifdef NTFSKIT_FIXTURE_DIR
constexpr const char* kBuiltInFixtureDir = NTFSKIT_FIXTURE_DIR;
#else
constexpr const char* kBuiltInFixtureDir = "";
#endif

[[noreturn]] void Fail(const std::string& what) {
    throw std::runtime_error("fixture: " + what);
}

std::string ReadTextFile(const std::string& path) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) Fail("cannot open " + path);
    std::string out;
    char buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
    const bool failed = std::ferror(f) != 0;
    std::fclose(f);
    if (failed) Fail("cannot read " + path);
    return out;
}

std::vector<std::string_view> Split(std::string_view s, char sep) {
    std::vector<std::string_view> out;
    size_t start = 0;
    for (;;) {
        const size_t pos = s.find(sep, start);
        if (pos == std::string_view::npos) {
            out.push_back(s.substr(start));
            return out;
        }
        out.push_back(s.substr(start, pos - start));
        start = pos + 1;
    }
}

uint64_t ParseUnsigned(std::string_view s, const std::string& where) {
    if (s.empty() || s.size() > 19) Fail("bad number '" + std::string(s) + "' in " + where);
    uint64_t v = 0;
    for (char c : s) {
        if (c < '0' || c > '9') Fail("bad number '" + std::string(s) + "' in " + where);
        v = v * 10 + static_cast<uint64_t>(c - '0');
    }
    return v;
}

// --- SHA-256 (FIPS 180-4) ---------------------------------------------------

constexpr std::array<uint32_t, 64> kK = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

inline uint32_t Rotr(uint32_t x, int n) {
    return (x >> n) | (x << (32 - n));
}

void Sha256Block(std::array<uint32_t, 8>& h, const uint8_t* p) {
    uint32_t w[64];
    for (int i = 0; i < 16; ++i) {
        w[i] = (uint32_t{p[4 * i]} << 24) | (uint32_t{p[4 * i + 1]} << 16) | (uint32_t{p[4 * i + 2]} << 8) |
               uint32_t{p[4 * i + 3]};
    }
    for (int i = 16; i < 64; ++i) {
        const uint32_t s0 = Rotr(w[i - 15], 7) ^ Rotr(w[i - 15], 18) ^ (w[i - 15] >> 3);
        const uint32_t s1 = Rotr(w[i - 2], 17) ^ Rotr(w[i - 2], 19) ^ (w[i - 2] >> 10);
        w[i] = w[i - 16] + s0 + w[i - 7] + s1;
    }
    uint32_t a = h[0], b = h[1], c = h[2], d = h[3], e = h[4], f = h[5], g = h[6], hh = h[7];
    for (int i = 0; i < 64; ++i) {
        const uint32_t t1 = hh + (Rotr(e, 6) ^ Rotr(e, 11) ^ Rotr(e, 25)) + ((e & f) ^ (~e & g)) + kK[i] + w[i];
        const uint32_t t2 = (Rotr(a, 2) ^ Rotr(a, 13) ^ Rotr(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
        hh = g;
        g = f;
        f = e;
        e = d + t1;
        d = c;
        c = b;
        b = a;
        a = t1 + t2;
    }
    h[0] += a;
    h[1] += b;
    h[2] += c;
    h[3] += d;
    h[4] += e;
    h[5] += f;
    h[6] += g;
    h[7] += hh;
}

}  // namespace

std::string FixtureDir() {
    const char* env = std::getenv("NTFSKIT_FIXTURE_DIR");
    std::string dir = (env != nullptr && *env != '\0') ? env : kBuiltInFixtureDir;
    if (dir.empty()) {
        Fail(
            "fixture directory unknown: build with -DNTFSKIT_FIXTURE_DIR=\"...\" "
            "or set the NTFSKIT_FIXTURE_DIR environment variable");
    }
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    return dir;
}

std::vector<std::string> FixtureNames() {
    namespace fs = std::filesystem;
    const std::string dir = FixtureDir();
    std::error_code ec;
    fs::directory_iterator it(dir, ec);
    if (ec) Fail("cannot list " + dir + ": " + ec.message());
    std::vector<std::string> names;
    for (const fs::directory_entry& e : it) {
        const std::string file = e.path().filename().string();
        constexpr std::string_view kExt = ".img";
        if (file.size() > kExt.size() && file.compare(file.size() - kExt.size(), kExt.size(), kExt) == 0 &&
            e.is_regular_file()) {
            names.push_back(file.substr(0, file.size() - kExt.size()));
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string FixturePath(const std::string& name) {
    return FixtureDir() + "/" + name + ".img";
}

std::vector<ManifestEntry> LoadManifest(const std::string& name) {
    const std::string path = FixtureDir() + "/" + name + ".manifest.tsv";
    const std::string text = ReadTextFile(path);
    std::vector<std::string_view> lines = Split(text, '\n');
    if (!lines.empty() && lines.back().empty()) lines.pop_back();
    if (lines.empty() || lines[0] != "record\tpath\ttype\tsize\tsha256\tlinks\tflags") {
        Fail(path + ": missing or unexpected header line");
    }
    std::vector<ManifestEntry> out;
    out.reserve(lines.size() - 1);
    for (size_t i = 1; i < lines.size(); ++i) {
        const std::string where = path + ":" + std::to_string(i + 1);
        const std::vector<std::string_view> f = Split(lines[i], '\t');
        if (f.size() != 7) Fail(where + ": expected 7 fields");
        ManifestEntry e;
        e.record = static_cast<int64_t>(ParseUnsigned(f[0], where));
        e.path_utf8 = std::string(f[1]);
        if (e.path_utf8.empty() || e.path_utf8[0] != '\\') Fail(where + ": path must start with '\\'");
        e.path = Utf8ToUtf16(e.path_utf8);
        if (f[2] == "dir") {
            e.is_dir = true;
        } else if (f[2] != "file") {
            Fail(where + ": unknown type '" + std::string(f[2]) + "'");
        }
        e.size = ParseUnsigned(f[3], where);
        if (f[4] != "-") {
            if (f[4].size() != 64 || f[4].find_first_not_of("0123456789abcdef") != std::string_view::npos) {
                Fail(where + ": bad sha256");
            }
            e.sha256 = std::string(f[4]);
        }
        if (e.is_dir != e.sha256.empty()) Fail(where + ": sha256 must be '-' exactly for directories");
        e.links = static_cast<int>(ParseUnsigned(f[5], where));
        if (f[6] != "-") {
            for (std::string_view flag : Split(f[6], ',')) {
                if (flag == "compressed") {
                    e.compressed = true;
                } else if (flag == "sparse") {
                    e.sparse = true;
                } else if (flag == "attrlist") {
                    e.attrlist = true;
                } else {
                    Fail(where + ": unknown flag '" + std::string(flag) + "'");
                }
            }
        }
        out.push_back(std::move(e));
    }
    return out;
}

std::vector<uint8_t> LoadImage(const std::string& name) {
    const std::string path = FixturePath(name);
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) Fail("cannot open " + path);
    std::vector<uint8_t> data;
    bool ok = std::fseek(f, 0, SEEK_END) == 0;
    const long end = ok ? std::ftell(f) : -1;
    ok = ok && end >= 0 && std::fseek(f, 0, SEEK_SET) == 0;
    if (ok) {
        data.resize(static_cast<size_t>(end));
        ok = std::fread(data.data(), 1, data.size(), f) == data.size();
    }
    std::fclose(f);
    if (!ok) Fail("cannot read " + path);
    return data;
}

std::string Sha256Hex(const void* data, size_t size) {
    std::array<uint32_t, 8> h = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                 0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    const auto* p = static_cast<const uint8_t*>(data);
    size_t left = size;
    while (left >= 64) {
        Sha256Block(h, p);
        p += 64;
        left -= 64;
    }
    // Final block(s): remaining bytes, 0x80, zero padding, 64-bit bit length.
    uint8_t tail[128] = {};
    std::copy(p, p + left, tail);
    tail[left] = 0x80;
    const size_t tail_len = left + 1 + 8 <= 64 ? 64 : 128;
    const uint64_t bits = static_cast<uint64_t>(size) * 8;
    for (int i = 0; i < 8; ++i) tail[tail_len - 1 - i] = static_cast<uint8_t>(bits >> (8 * i));
    Sha256Block(h, tail);
    if (tail_len == 128) Sha256Block(h, tail + 64);

    static const char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(64);
    for (uint32_t word : h) {
        for (int shift = 28; shift >= 0; shift -= 4) out.push_back(kHex[(word >> shift) & 0xf]);
    }
    return out;
}

std::u16string Utf8ToUtf16(const std::string& utf8) {
    std::u16string out;
    out.reserve(utf8.size());
    const auto* s = reinterpret_cast<const unsigned char*>(utf8.data());
    const size_t n = utf8.size();
    size_t i = 0;
    while (i < n) {
        const unsigned char c = s[i];
        uint32_t cp;
        size_t len;
        uint32_t min;
        if (c < 0x80) {
            cp = c;
            len = 1;
            min = 0;
        } else if ((c & 0xe0) == 0xc0) {
            cp = c & 0x1f;
            len = 2;
            min = 0x80;
        } else if ((c & 0xf0) == 0xe0) {
            cp = c & 0x0f;
            len = 3;
            min = 0x800;
        } else if ((c & 0xf8) == 0xf0) {
            cp = c & 0x07;
            len = 4;
            min = 0x10000;
        } else {
            Fail("invalid UTF-8 lead byte in '" + utf8 + "'");
        }
        if (i + len > n) Fail("truncated UTF-8 sequence in '" + utf8 + "'");
        for (size_t k = 1; k < len; ++k) {
            if ((s[i + k] & 0xc0) != 0x80) Fail("invalid UTF-8 continuation in '" + utf8 + "'");
            cp = (cp << 6) | (s[i + k] & 0x3f);
        }
        if (cp < min || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)) {
            Fail("invalid UTF-8 code point in '" + utf8 + "'");
        }
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(static_cast<char16_t>(0xd800 + (cp >> 10)));
            out.push_back(static_cast<char16_t>(0xdc00 + (cp & 0x3ff)));
        } else {
            out.push_back(static_cast<char16_t>(cp));
        }
        i += len;
    }
    return out;
}

}  // namespace ntfs::test
