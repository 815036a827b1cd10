// zpk info FILE.zpk: the manifest fields, the script mask and the members.
#include <cstdio>
#include <string>

#include "commands.h"
#include "options.h"
#include "quorpkg/package/package_file.h"

namespace {

std::string joinDependencies(const std::vector<quor::Dependency>& deps) {
    std::string out;
    for (const auto& dep : deps) {
        if (!out.empty()) out += ':';
        out += dep.name + dep.op + dep.version;
    }
    return out;
}

std::string scriptNames(int mask) {
    static const char* const kNames[] = {"preinst",          "postinst",   "preuninst",
                                         "postuninst",       "preupgrade", "postupgrade",
                                         "start-stop-status"};
    std::string out;
    for (const char* name : kNames) {
        if (!(mask & quor::scriptBit(name))) continue;
        if (!out.empty()) out += ' ';
        out += name;
    }
    return out;
}

void field(const char* label, const std::string& value) {
    std::printf("%-12s %s\n", label, value.c_str());
}

}  // namespace

int zpkInfo(int argc, char** argv) {
    CommandLine line{"info FILE.zpk", "Print a package file's manifest and members."};
    line.hidden.add_options()("file", po::value<std::string>()->required());
    line.operands.add("file", 1);
    if (int status = parseCommandLine(argc, argv, line); status >= 0) return status;
    const std::string file = line.values["file"].as<std::string>();
    quor::PackageFileHead head;
    std::string error;
    int code = quor::readPackageHead(file, head, &error);
    if (code != 0)
        return zpkError(1, "%s: cannot read the package (%d): %s", file.c_str(), code,
                        error.c_str());
    const quor::Manifest& m = head.manifest;
    field("package:", m.name);
    field("version:", m.version);
    field("displayname:", m.displayname);
    field("description:", m.description);
    field("maintainer:", m.maintainer);
    field("manager_url:", m.manager_url);
    field("admin_port:", std::to_string(m.admin_port));
    field("ui_dir:", m.ui_dir);
    field("beta:", m.beta ? "yes" : "no");
    field("depends:", joinDependencies(m.depends));
    field("conflicts:", joinDependencies(m.conflicts));
    std::string services;
    for (const auto& service : m.services) services += (services.empty() ? "" : " ") + service;
    field("services:", services);
    field("firmware:", m.firmware);
    field("arch:", m.arch.empty() ? "noarch" : m.arch);
    field("checksum:", m.checksum);
    field("sha256:", m.sha256);
    // Whether the signature is good is the device's question: it depends on
    // the keys it trusts.
    std::string signature = "none";
    if (head.signature)
        signature = "key " + head.signature->keyId;
    else if (head.hasSignature)
        signature = "unreadable (" + head.signatureProblem + ")";
    field("signature:", signature);
    std::string mask = std::to_string(head.scriptMask);
    if (head.scriptMask != 0) mask += " (" + scriptNames(head.scriptMask) + ")";
    field("script_mask:", mask);
    field("payload:", head.payloadMember);
    std::printf("members:\n");
    for (const auto& member : head.members) std::printf("  %s\n", member.c_str());
    return 0;
}
