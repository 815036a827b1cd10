// Command-line parsing shared by the zpk subcommands (Boost.Program_options):
// each subcommand names its synopsis, a one-line summary, its options and
// its operands; -h/--help and --version come with every one.
#pragma once

#include <boost/program_options.hpp>

namespace po = boost::program_options;

struct CommandLine {
    CommandLine(const char* synopsis_, const char* summary_)
        : synopsis(synopsis_), summary(summary_) {}

    const char* synopsis;  // "build DIR -o FILE.zpk [--zstd]"
    const char* summary;   // one sentence for --help
    po::options_description options{"options"};
    po::options_description hidden;  // the operands, named in the synopsis
    po::positional_options_description operands;
    po::variables_map values;
};

// Parses argv (argv[0] is the subcommand's word). -1 to go on; otherwise the
// exit status to return: 0 after --help or --version, 2 after a usage error
// (reported on standard error with the synopsis).
int parseCommandLine(int argc, char** argv, CommandLine& line);

// "zpk <version>" on standard output; status 0.
int printVersion();
