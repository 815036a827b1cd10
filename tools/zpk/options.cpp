#include "options.h"

#include <cstdio>
#include <iostream>
#include <string>

#include "commands.h"

int printVersion() {
    std::printf("zpk %s\n", ZPK_VERSION);
    return 0;
}

int parseCommandLine(int argc, char** argv, CommandLine& line) {
    line.options.add_options()("help,h", "print this help and exit")("version",
                                                                     "print the version and exit");
    po::options_description all;
    all.add(line.options).add(line.hidden);
    try {
        // The parser skips argv[0], the subcommand's word.
        po::store(po::command_line_parser(argc, argv).options(all).positional(line.operands).run(),
                  line.values);
        if (line.values.count("help")) {
            std::cout << "usage: zpk " << line.synopsis << "\n\n"
                      << line.summary << "\n\n"
                      << line.options;
            return 0;
        }
        if (line.values.count("version")) return printVersion();
        po::notify(line.values);
    } catch (const po::required_option& e) {
        // Operands are hidden options: name them as the synopsis does.
        std::string name = e.get_option_name();
        name.erase(0, name.find_first_not_of('-'));
        if (line.hidden.find_nothrow(name, false))
            zpkError(2, "%s: missing operand %s", argv[0], name.c_str());
        else
            zpkError(2, "%s: %s", argv[0], e.what());
        return zpkError(2, "usage: zpk %s", line.synopsis);
    } catch (const po::error& e) {
        zpkError(2, "%s: %s", argv[0], e.what());
        return zpkError(2, "usage: zpk %s", line.synopsis);
    }
    return -1;
}
