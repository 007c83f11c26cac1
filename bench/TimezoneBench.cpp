// Zone conversions, Unix time to local fields (to_local) and back
// (to_unix), on one thread and on two, in Europe/Paris from the system's
// zoneinfo: against glibc's localtime_r/mktime under TZ, Abseil's
// absl::TimeZone and Howard Hinnant's date::zoned_time/locate_zone. The
// instants are spread over 1970-2037, so every lookup searches the table.
#include <absl/time/civil_time.h>
#include <absl/time/time.h>
#include <benchmark/benchmark.h>
#include <date/tz.h>
#include <stdlib.h>

#include <chrono>
#include <ctime>
#include <random>
#include <vector>

#include "util/DateTime.h"
#include "util/Timezone.h"

namespace {

using benchmark_state = benchmark::State;

constexpr const char* kZone = "Europe/Paris";
constexpr size_t kCount = 4096;

const std::vector<long>& instants() {
    static const std::vector<long> v = [] {
        std::mt19937_64 rng(19);
        std::vector<long> out;
        for (size_t i = 0; i < kCount; i++) out.push_back(long(rng() % 2145916800));
        return out;
    }();
    return v;
}

struct Fields {
    int year, month, mday, hour, minute, second;
};

// The local fields of each instant, as glibc gives them.
const std::vector<Fields>& locals() {
    static const std::vector<Fields> v = [] {
        setenv("TZ", kZone, 1);
        tzset();
        std::vector<Fields> out;
        for (long t : instants()) {
            const time_t tt = t;
            struct tm tm;
            localtime_r(&tt, &tm);
            out.push_back(
                {tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec});
        }
        return out;
    }();
    return v;
}

const Timezone* tarvexZone() {
    static const Timezone* tz = getTimezone(kZone, false);
    return tz;
}

// Everything shared is made before any benchmark thread runs: setenv
// while another thread reads the environment would be a race of our own.
const bool kPrepared = [] {
    setenv("TZ", kZone, 1);
    tzset();
    return !instants().empty() && !locals().empty();
}();

// ---------------------------------------------------------------- to_local

void ToLocalTarvex(benchmark_state& state) {
    const Timezone* tz = tarvexZone();
    long sum = 0;
    for (auto _ : state) {
        for (long t : instants()) {
            StructTmInTimezone s(tz);
            s.fromUnixTime(t);
            sum += s.tm_hour + s.tm_mday;
        }
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(int64_t(state.iterations() * kCount));
}

void ToLocalGlibc(benchmark_state& state) {
    long sum = 0;
    for (auto _ : state) {
        for (long t : instants()) {
            const time_t tt = t;
            struct tm tm;
            localtime_r(&tt, &tm);
            sum += tm.tm_hour + tm.tm_mday;
        }
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(int64_t(state.iterations() * kCount));
}

void ToLocalAbsl(benchmark_state& state) {
    absl::TimeZone tz;
    absl::LoadTimeZone(kZone, &tz);
    long sum = 0;
    for (auto _ : state) {
        for (long t : instants()) {
            const absl::TimeZone::CivilInfo ci = tz.At(absl::FromUnixSeconds(t));
            sum += ci.cs.hour() + ci.cs.day();
        }
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(int64_t(state.iterations() * kCount));
}

void ToLocalDate(benchmark_state& state) {
    using namespace std::chrono;
    const date::time_zone* zone = date::locate_zone(kZone);
    long sum = 0;
    for (auto _ : state) {
        for (long t : instants()) {
            const date::zoned_seconds z(zone, date::sys_seconds(seconds(t)));
            const date::local_seconds local = z.get_local_time();
            const auto day = date::floor<date::days>(local);
            const date::year_month_day ymd(day);
            const date::hh_mm_ss<seconds> hms(local - day);
            sum += long(hms.hours().count()) + long(unsigned(ymd.day()));
        }
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(int64_t(state.iterations() * kCount));
}

// ---------------------------------------------------------------- to_unix

void ToUnixTarvex(benchmark_state& state) {
    const Timezone* tz = tarvexZone();
    long sum = 0;
    for (auto _ : state) {
        for (const Fields& f : locals()) {
            StructTmInTimezone s(tz);
            s.tm_year = f.year - 1900, s.tm_mon = f.month - 1, s.tm_mday = f.mday;
            s.tm_hour = f.hour, s.tm_min = f.minute, s.tm_sec = f.second, s.tm_isdst = -1;
            sum += s.toUnixTime();
        }
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(int64_t(state.iterations() * kCount));
}

void ToUnixGlibc(benchmark_state& state) {
    long sum = 0;
    for (auto _ : state) {
        for (const Fields& f : locals()) {
            struct tm tm = {};
            tm.tm_year = f.year - 1900, tm.tm_mon = f.month - 1, tm.tm_mday = f.mday;
            tm.tm_hour = f.hour, tm.tm_min = f.minute, tm.tm_sec = f.second, tm.tm_isdst = -1;
            sum += long(mktime(&tm));
        }
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(int64_t(state.iterations() * kCount));
}

void ToUnixAbsl(benchmark_state& state) {
    absl::TimeZone tz;
    absl::LoadTimeZone(kZone, &tz);
    long sum = 0;
    for (auto _ : state) {
        for (const Fields& f : locals()) {
            const absl::CivilSecond cs(f.year, f.month, f.mday, f.hour, f.minute, f.second);
            sum += long(absl::ToUnixSeconds(tz.At(cs).pre));
        }
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(int64_t(state.iterations() * kCount));
}

void ToUnixDate(benchmark_state& state) {
    using namespace std::chrono;
    const date::time_zone* zone = date::locate_zone(kZone);
    long sum = 0;
    for (auto _ : state) {
        for (const Fields& f : locals()) {
            const date::local_seconds local =
                date::local_days(date::year(f.year) / f.month / f.mday) + hours(f.hour) +
                minutes(f.minute) + seconds(f.second);
            sum += long(zone->to_sys(local, date::choose::earliest).time_since_epoch().count());
        }
    }
    benchmark::DoNotOptimize(sum);
    benchmark::DoNotOptimize(kPrepared);
    state.SetItemsProcessed(int64_t(state.iterations() * kCount));
}

}  // namespace

#define ZONE_GROUP(group, prefix, threads)                                             \
    BENCHMARK(prefix##Tarvex)->Name(group "/tarvex")->Threads(threads)->UseRealTime(); \
    BENCHMARK(prefix##Glibc)->Name(group "/glibc")->Threads(threads)->UseRealTime();   \
    BENCHMARK(prefix##Absl)->Name(group "/absl")->Threads(threads)->UseRealTime();     \
    BENCHMARK(prefix##Date)->Name(group "/date")->Threads(threads)->UseRealTime()
ZONE_GROUP("to_local", ToLocal, 1);
ZONE_GROUP("to_local_2threads", ToLocal, 2);
ZONE_GROUP("to_unix", ToUnix, 1);
ZONE_GROUP("to_unix_2threads", ToUnix, 2);
