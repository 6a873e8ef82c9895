// Benchmarks of the string operations: wildcard match, split, trim.

#include "LxStringUtils.h"
#include "support/bench.h"

#include <fnmatch.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#ifdef ORV_BENCH_ABSL
#include <absl/strings/ascii.h>
#include <absl/strings/str_split.h>
#endif
#ifdef ORV_BENCH_BOOST
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>
#endif
#ifdef ORV_BENCH_GLIB
#include <glib.h>

#include <memory>
#endif

namespace bench {

namespace {

std::string Repeat(const std::string& text, std::size_t times)
{
    std::string repeated;
    for (std::size_t i = 0; i < times; ++i) {
        repeated += text;
    }
    return repeated;
}

// ---- Wildcard match

struct Match {
    std::string text;
    std::string pattern;
};

// One call matches all of them. The result depends on each match, so the compiler cannot omit any.
struct Matches : Fixture {
    std::vector<Match> all;
};

template <typename One>
std::string MatchAll(const Matches& matches, const One& one)
{
    std::string results(matches.all.size(), '0');
    for (std::size_t i = 0; i < matches.all.size(); ++i) {
        if (one(i)) {
            results[i] = '1';
        }
    }
    return results;
}

// Typical file names and patterns.
Matches TypicalNames()
{
    const char* const patterns[] = {"*.log",         "event_*", "*_7?.txt", "trace_*.bak",
                                    "status_71.log", "*",       "*tmp*",    "?*_*.*"};
    const char* const prefixes[] = {"status_", "event_", "tmp_", "trace_"};
    const char* const suffixes[] = {".log", ".txt", ".bak"};
    Matches matches;
    for (std::size_t i = 0; i < 96; ++i) {
        const std::string name = prefixes[i % 4] + std::to_string(67 + i % 9) + suffixes[i % 3];
        matches.all.push_back({name, patterns[i % 8]});
    }
    return matches;
}

Matches OneMatch(const std::string& text, const std::string& pattern)
{
    Matches matches;
    matches.all.push_back({text, pattern});
    return matches;
}

bool SegmentFits(const char* text, const char* segment, std::size_t bytes)
{
    for (std::size_t i = 0; i < bytes; ++i) {
        if (segment[i] != '?' && segment[i] != text[i]) {
            return false;
        }
    }
    return true;
}

// Returns the first match of the segment between `text` and `end`, or null. It searches for the first plain byte of the
// segment. memmem, whose time is linear, searches for a long segment of plain bytes.
const char* FindSegment(const char* text, const char* end, const char* segment, std::size_t bytes)
{
    const std::size_t kLong = 16;

    if (bytes >= kLong && std::memchr(segment, '?', bytes) == nullptr) {
        return static_cast<const char*>(memmem(text, static_cast<std::size_t>(end - text), segment, bytes));
    }
    std::size_t skipped = 0;
    while (skipped < bytes && segment[skipped] == '?') {
        ++skipped;
    }
    while (static_cast<std::size_t>(end - text) >= bytes) {
        if (skipped == bytes) {
            return text;
        }
        const std::size_t places = static_cast<std::size_t>(end - text) - bytes + 1;
        const void* const found = std::memchr(text + skipped, segment[skipped], places);
        if (found == nullptr) {
            return nullptr;
        }
        text = static_cast<const char*>(found) - skipped;
        if (SegmentFits(text + skipped, segment + skipped, bytes - skipped)) {
            return text;
        }
        ++text;
    }
    return nullptr;
}

// The floor: the text before the first star and after the last one can match at one place only; each segment between
// stars is placed at its leftmost match.
bool FloorMatch(const std::string& textString, const std::string& patternString)
{
    const char* text = textString.data();
    const char* textEnd = text + textString.size();
    const char* pattern = patternString.data();
    const char* patternEnd = pattern + patternString.size();
    for (; pattern != patternEnd && *pattern != '*'; ++pattern, ++text) {
        if (text == textEnd || (*pattern != *text && *pattern != '?')) {
            return false;
        }
    }
    if (pattern == patternEnd) {
        return text == textEnd;
    }
    for (; patternEnd[-1] != '*'; --patternEnd, --textEnd) {
        if (text == textEnd || (patternEnd[-1] != textEnd[-1] && patternEnd[-1] != '?')) {
            return false;
        }
    }
    while (++pattern < patternEnd) {  // after a star; the next star ends the segment
        const char* star = pattern;
        while (*star != '*') {
            ++star;
        }
        const std::size_t bytes = static_cast<std::size_t>(star - pattern);
        text = FindSegment(text, textEnd, pattern, bytes);
        if (text == nullptr) {
            return false;
        }
        text += bytes;
        pattern = star;
    }
    return true;
}

#ifdef ORV_BENCH_GLIB
struct FreePattern {
    void operator()(GPatternSpec* pattern) const
    {
        g_pattern_spec_free(pattern);
    }
};

struct CompiledMatches : Matches {
    explicit CompiledMatches(Matches matches) : Matches(std::move(matches))
    {
        for (const Match& match : all) {
            compiled.emplace_back(g_pattern_spec_new(match.pattern.c_str()));
        }
    }

    std::vector<std::unique_ptr<GPatternSpec, FreePattern>> compiled;
};
#endif

template <typename Make>
void AddMatch(const std::string& name, double units, const std::string& unit, const Make& make)
{
    const Workload workload = {"match/" + name, units, unit};
    Add(workload, "ours", make, [](const Matches& matches) {
        return MatchAll(matches, [&](std::size_t i) {
            return LxStringUtils::WildcardedStringMatch(matches.all[i].text, matches.all[i].pattern);
        });
    });
    Add(workload, "floor", make, [](const Matches& matches) {
        return MatchAll(matches,
                        [&](std::size_t i) { return FloorMatch(matches.all[i].text, matches.all[i].pattern); });
    });
    Add(workload, "fnmatch(3)", make, [](const Matches& matches) {
        return MatchAll(matches, [&](std::size_t i) {
            return fnmatch(matches.all[i].pattern.c_str(), matches.all[i].text.c_str(), 0) == 0;
        });
    });
#ifdef ORV_BENCH_GLIB
    Add(
        workload, "GPatternSpec", [make] { return CompiledMatches(make()); },
        [](const CompiledMatches& matches) {
            return MatchAll(matches, [&](std::size_t i) {
                return g_pattern_spec_match_string(matches.compiled[i].get(), matches.all[i].text.c_str()) != FALSE;
            });
        });
#endif
}

void AddMatches()
{
    AddMatch("typical", 96, "match", TypicalNames);
    AddMatch("many_stars", 1, "match", [] { return OneMatch(Repeat("a", 100), Repeat("*a", 40) + "*b"); });
    AddMatch("long_segments", 1, "match", [] { return OneMatch(Repeat("a", 2000), "*" + Repeat("a", 100) + "b*"); });
    AddMatch("question_marks", 1, "match",
             [] { return OneMatch(Repeat("a", 2000), "*" + Repeat("?", 100) + "b*" + Repeat("a?", 50) + "*"); });
    for (const std::size_t bytes : {250U, 500U, 1000U, 2000U, 4000U}) {
        AddMatch("growing:" + std::to_string(bytes), static_cast<double>(bytes), "byte",
                 [bytes] { return OneMatch(Repeat("abcdefghi-", bytes / 10), Repeat("*hi-", bytes / 10)); });
        AddMatch("growing_miss:" + std::to_string(bytes), static_cast<double>(bytes), "byte",
                 [bytes] { return OneMatch(Repeat("abcdefghi-", bytes / 10), Repeat("*i?", bytes / 20) + "*?z*"); });
    }
}

// ---- Split

struct Line : Fixture {
    std::string text;
};

Line LineOfPieces(std::size_t pieces)
{
    Line line;
    for (std::size_t i = 0; i < pieces; ++i) {
        line.text += (i == 0 ? "cell" : ",cell") + std::to_string(i * 7919 % 10000);
    }
    return line;
}

// Counts `byte`, eight bytes at a time.
std::size_t CountOf(const std::string& text, char byte)
{
    const std::uint64_t kOnes = 0x0101010101010101;
    const std::uint64_t kLow = 0x7f7f7f7f7f7f7f7f;

    const std::uint64_t sought = kOnes * static_cast<unsigned char>(byte);
    std::size_t count = 0;
    std::size_t at = 0;
    for (; at + sizeof sought <= text.size(); at += sizeof sought) {
        std::uint64_t word = 0;
        std::memcpy(&word, text.data() + at, sizeof word);
        word ^= sought;                                                      // bytes that are equal become zero
        const std::uint64_t high = ~(((word & kLow) + kLow) | word | kLow);  // the highest bit of each zero byte
        count += ((high >> 7U) * kOnes) >> 56U;
    }
    return count +
           static_cast<std::size_t>(std::count(text.begin() + static_cast<std::ptrdiff_t>(at), text.end(), byte));
}

std::vector<std::string> FloorSplit(const std::string& text, char delimiter)
{
    std::vector<std::string> pieces;
    pieces.reserve(CountOf(text, delimiter) + 1);
    const char* start = text.data();
    const char* const end = start + text.size();
    while (const void* const found = std::memchr(start, delimiter, static_cast<std::size_t>(end - start))) {
        pieces.emplace_back(start, static_cast<const char*>(found));
        start = static_cast<const char*>(found) + 1;
    }
    if (start != end || pieces.empty()) {
        pieces.emplace_back(start, end);
    }
    return pieces;
}

void AddSplit(std::size_t pieces)
{
    const Workload workload = {"split/pieces:" + std::to_string(pieces), static_cast<double>(pieces), "piece"};
    const auto make = [pieces] { return LineOfPieces(pieces); };
    Add(workload, "ours", make, [](const Line& line) {
        std::vector<std::string> result;
        LxStringUtils::Split(line.text, ',', result);
        return result;
    });
    Add(workload, "floor", make, [](const Line& line) { return FloorSplit(line.text, ','); });
#ifdef ORV_BENCH_ABSL
    Add(workload, "Abseil StrSplit", make, [](const Line& line) {
        std::vector<std::string> result = absl::StrSplit(line.text, ',');
        return result;
    });
#endif
#ifdef ORV_BENCH_BOOST
    Add(workload, "Boost split", make, [](const Line& line) {
        std::vector<std::string> result;
        boost::split(result, line.text, [](char c) { return c == ','; });
        return result;
    });
#endif
}

// ---- Trim

bool IsBlank(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

void FloorTrim(std::string& text)
{
    const char* start = text.data();
    const char* end = start + text.size();
    while (end != start && IsBlank(end[-1])) {
        --end;
    }
    while (start != end && IsBlank(*start)) {
        ++start;
    }
    const std::size_t bytes = static_cast<std::size_t>(end - start);
    if (start != text.data()) {
        std::memmove(text.data(), start, bytes);
    }
    text.resize(bytes);
}

// Each call first sets `work` to the text again; this costs all contenders the same.
struct Trimming : Fixture {
    std::string text;
    std::string work;

    [[nodiscard]] std::string After() const
    {
        return work + '\n';
    }
};

void AddTrim(const std::string& name, const std::string& text)
{
    const Workload workload = {"trim/" + name, 1, "call"};
    const auto make = [text] {
        Trimming trimming;
        trimming.text = text;
        return trimming;
    };
    Add(workload, "ours", make, [](Trimming& trimming) {
        trimming.work = trimming.text;
        LxStringUtils::Trim(trimming.work);
        benchmark::DoNotOptimize(trimming.work.data());
        return Done();
    });
    Add(workload, "floor", make, [](Trimming& trimming) {
        trimming.work = trimming.text;
        FloorTrim(trimming.work);
        benchmark::DoNotOptimize(trimming.work.data());
        return Done();
    });
#ifdef ORV_BENCH_ABSL
    Add(workload, "Abseil StripAsciiWhitespace", make, [](Trimming& trimming) {
        trimming.work = trimming.text;
        absl::StripAsciiWhitespace(&trimming.work);
        benchmark::DoNotOptimize(trimming.work.data());
        return Done();
    });
#endif
#ifdef ORV_BENCH_BOOST
    Add(workload, "Boost trim", make, [](Trimming& trimming) {
        trimming.work = trimming.text;
        boost::trim(trimming.work);
        benchmark::DoNotOptimize(trimming.work.data());
        return Done();
    });
#endif
}

}  // namespace

void AddStrings()
{
    AddMatches();
    AddSplit(8);
    AddSplit(1000);
    AddTrim("both_ends", "   interface.eth0.mtu = 1500 \t\r");
    AddTrim("nothing", "interface.eth0.mtu = 1500");
    AddTrim("blank_line", "            \t");
    AddTrim("long", "  " + Repeat("many words in one line ", 50) + "  ");
}

}  // namespace bench
