// list: what is installed.
#include <boost/program_options.hpp>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "commands.h"

namespace quorpkg {
namespace {

namespace po = boost::program_options;

std::string describe(const po::options_description& options) {
    std::ostringstream text;
    text << options;
    return text.str();
}

}  // namespace

int list(int argc, char** argv, PackageManager* manager) {
    std::string dependOn;
    po::options_description options(
        "usage: quorpkg list [--help] [--name] [--depend-on <package>]");
    // The blank in "name, n" leaves --name without a short form: -n is an
    // unknown option, unlike -h.
    po::options_description_easy_init add = options.add_options();
    add("help,h", "Show this help");
    add("name, n", "List packages' name only.");
    add("depend-on", po::value<std::string>(&dependOn),
        "Only list packages depend on which you specify (exclude itself).");

    po::variables_map chosen;
    try {
        po::store(po::parse_command_line(argc, argv, options), chosen);
        if (chosen.count("help") != 0) {
            std::printf("%s\n", describe(options).c_str());
            return 0;
        }
        po::notify(chosen);
    } catch (const po::error& error) {
        std::printf("%s\n", error.what());
        std::printf("%s\n", describe(options).c_str());
        return 1;
    }

    std::vector<std::string> names;
    if (chosen.count("depend-on") == 0) {
        names = manager->enumPackages(nullptr, kAllPackages);
    } else {
        manager->getDependencyOrder(dependOn.c_str(), names, true);
        // The library lists the named package itself last.
        if (!names.empty()) names.pop_back();
    }

    if (chosen.count("name") != 0) {
        std::string joined;
        for (std::size_t i = 0; i < names.size(); ++i) {
            if (i != 0) joined += '\n';
            joined += names[i];
        }
        std::printf("%s\n", joined.c_str());
        return 0;
    }
    // Packages that cannot be read are left out silently.
    for (const std::string& name : names) {
        QUORPackageTool::PackageInfo info;
        if (manager->getPackageInfo(name, info, nullptr, kAllPackages)) {
            std::printf("%s-%s: %s\n", info.name.c_str(), info.version.c_str(),
                        info.description.c_str());
        }
    }
    return 0;
}

}  // namespace quorpkg
