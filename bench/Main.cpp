// The benchmarks' main program. The service prints what it drops on standard output; that goes to
// the null device here, and the table to where standard output was.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <ext/stdio_filebuf.h>
#include <iostream>

int main(int argc, char** argv) {
    __gnu_cxx::stdio_filebuf<char> table(::dup(STDOUT_FILENO), std::ios::out);
    std::ostream out(&table);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    if (std::freopen("/dev/null", "w", stdout) == nullptr) return 1;
    benchmark::ConsoleReporter reporter(benchmark::ConsoleReporter::OO_Tabular);
    reporter.SetOutputStream(&out);
    reporter.SetErrorStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return 0;
}
