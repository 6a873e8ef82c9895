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

// What a program would write by hand: after a mismatch, the last star takes one byte more.
bool MatchByHand(const std::string& text, const std::string& pattern)
{
    std::size_t at = 0;
    std::size_t rest = 0;  // of the pattern
    std::size_t star = std::string::npos;
    std::size_t afterStar = 0;  // the place in the text that the pattern after the star was tried at
    while (at < text.size()) {
        if (rest < pattern.size() && pattern[rest] == '*') {
            star = rest++;
            afterStar = at;
        } else if (rest < pattern.size() && (pattern[rest] == '?' || pattern[rest] == text[at])) {
            ++rest;
            ++at;
        } else if (star != std::string::npos) {
            rest = star + 1;
            at = ++afterStar;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of('*', rest) == std::string::npos;
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
    const Workload workload = {name, units, unit};
    Add(workload, "ours", make, [](const Matches& matches) {
        return MatchAll(matches, [&](std::size_t i) {
            return LxStringUtils::WildcardedStringMatch(matches.all[i].text, matches.all[i].pattern);
        });
    });
    Add(workload, "by hand", make, [](const Matches& matches) {
        return MatchAll(matches,
                        [&](std::size_t i) { return MatchByHand(matches.all[i].text, matches.all[i].pattern); });
    });
    if (units > 1000000) {
        return;  // the others need minutes, or more than the stack
    }
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
    AddMatch("match/typical", 96, "match", TypicalNames);
    AddMatch("match/many_stars", 1, "match", [] { return OneMatch(Repeat("a", 100), Repeat("*a", 40) + "*b"); });
    AddMatch("match/long_segments", 1, "match",
             [] { return OneMatch(Repeat("a", 2000), "*" + Repeat("a", 100) + "b*"); });
    AddMatch("match/question_marks", 1, "match",
             [] { return OneMatch(Repeat("a", 2000), "*" + Repeat("?", 100) + "b*" + Repeat("a?", 50) + "*"); });
    for (const std::size_t bytes : {250U, 500U, 1000U, 2000U, 4000U}) {
        AddMatch("match/growing:" + std::to_string(bytes), static_cast<double>(bytes), "byte",
                 [bytes] { return OneMatch(Repeat("abcdefghi-", bytes / 10), Repeat("*hi-", bytes / 10)); });
        AddMatch("match/growing_miss:" + std::to_string(bytes), static_cast<double>(bytes), "byte",
                 [bytes] { return OneMatch(Repeat("abcdefghi-", bytes / 10), Repeat("*i?", bytes / 20) + "*?z*"); });
    }
    ForEachSize(1000000, [](std::size_t words) {
        AddMatch("growth/match:" + std::to_string(10 * words), static_cast<double>(10 * words), "byte",
                 [words] { return OneMatch(Repeat("abcdefghi-", words), Repeat("*hi-", words)); });
    });
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
