// The dynamic symbol tables of both libraries hold exactly the names of their version
// scripts: no helper of the implementation leaks out, and no listed name is missing.

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "qel_version.h"

namespace {

using Names = std::set<std::string>;

// The names of the "global:" part of a version script.
Names listed_names(const char *script_path) {
    std::ifstream script(script_path);
    EXPECT_TRUE(script.good()) << script_path;
    std::stringstream text;
    text << script.rdbuf();
    std::string all = text.str();
    // Drop /* ... */ comments.
    for (size_t open = all.find("/*"); open != std::string::npos; open = all.find("/*")) {
        all.erase(open, all.find("*/", open) + 2 - open);
    }
    const size_t begin = all.find("global:");
    const size_t end = all.find("local:");
    EXPECT_NE(begin, std::string::npos);
    EXPECT_NE(end, std::string::npos);
    Names names;
    std::stringstream entries(all.substr(begin + 7, end - begin - 7));
    std::string entry;
    while (std::getline(entries, entry, ';')) {
        std::stringstream words(entry);
        std::string name;
        if (words >> name) names.insert(name);
    }
    return names;
}

// The defined dynamic symbols of a shared object, without version suffixes and without
// the version node itself.
Names exported_names(const char *library_path, const char *version_node) {
    const std::string command = std::string("nm -D --defined-only ") + library_path;
    FILE *pipe = popen(command.c_str(), "r");
    EXPECT_NE(pipe, nullptr);
    Names names;
    if (pipe == nullptr) return names;
    char line[512];
    while (fgets(line, sizeof line, pipe) != nullptr) {
        std::stringstream words(line);
        std::string address, kind, name;
        if (!(words >> address >> kind >> name)) continue;
        name = name.substr(0, name.find('@'));
        if (name != version_node) names.insert(name);
    }
    EXPECT_EQ(pclose(pipe), 0) << command;
    return names;
}

std::string difference(const Names &a, const Names &b) {
    std::string out;
    for (const std::string &name : a) {
        if (b.count(name) == 0) out += name + " ";
    }
    return out;
}

void expect_same(const Names &exported, const Names &listed) {
    EXPECT_FALSE(listed.empty());
    EXPECT_EQ(difference(exported, listed), "") << "exported but not listed";
    EXPECT_EQ(difference(listed, exported), "") << "listed but not exported";
}

}  // namespace

TEST(Exports, AdapterExportsExactlyItsListedNames) {
    expect_same(exported_names(QEL_ADAPTER_LIBRARY, "QEL_OS_ADAPTER_1"),
                listed_names(QEL_ADAPTER_EXPORT_MAP));
}

TEST(Exports, BoundsLibraryExportsExactlyItsTwelveFunctions) {
    const Names listed = listed_names(QEL_BOUNDS_EXPORT_MAP);
    EXPECT_EQ(listed.size(), 12u);
    expect_same(exported_names(QEL_BOUNDS_LIBRARY, "QEL_BOUNDS_1"), listed);
}

// The SONAME the library carries, read with objdump.
std::string soname_of(const char *library) {
    const std::string command = std::string("objdump -p ") + library;
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return "";
    std::string soname;
    char line[512];
    while (fgets(line, sizeof line, pipe) != nullptr) {
        std::stringstream words(line);
        std::string key, value;
        if (words >> key >> value && key == "SONAME") soname = value;
    }
    pclose(pipe);
    return soname;
}

TEST(Exports, AdapterHasVersionedSoname) {
    EXPECT_EQ(soname_of(QEL_ADAPTER_LIBRARY), "libqel_os_adapter.so.1");
}

TEST(Version, MacrosFollowTheProjectVersionAndTheSoname) {
    EXPECT_STREQ(QEL_OS_ADAPTER_VERSION_STRING, QEL_PROJECT_VERSION);
    const std::string parts = std::to_string(QEL_OS_ADAPTER_VERSION_MAJOR) + "." +
                              std::to_string(QEL_OS_ADAPTER_VERSION_MINOR) + "." +
                              std::to_string(QEL_OS_ADAPTER_VERSION_PATCH);
    EXPECT_EQ(parts, QEL_OS_ADAPTER_VERSION_STRING);
    EXPECT_EQ(soname_of(QEL_ADAPTER_LIBRARY),
              "libqel_os_adapter.so." + std::to_string(QEL_OS_ADAPTER_VERSION_MAJOR));
}
