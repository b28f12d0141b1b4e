// A general configuration file with something in every field.
#pragma once

#include <string>

#include "kp/config/config.h"
#include "support/installation.h"

namespace kp::test {

inline const std::string kSample =
    "-------------------------------------------------------\n"
    "WARNING! This is a machine generated file. DO NOT EDIT.\n"
    "-------------------------------------------------------\n"
    "\n"
    "# Config version\n1\n\n"
    "# Net 1=On 0=Off\n1\n\n"
    "# BPF filter string\ntcp port 80\n\n"
    "# Days of data to keep\n7\n\n"
    "# HTTP RealTime: Number of MIME type file extension mappings\n2\n\n"
    "# HTTP RealTime: MIME type file extension mappings\n"
    "Text/HTML\t\t\thtm html \n"
    "x/none\t\t\t\n"
    "\n"
    "# Root user\n"
    "password{a b}\n"
    "applyNetAddress{1}\n"
    "numOfNets{3}\n"
    "exampleAddress{192.168.1.7 10.0.0.1 1.2.3.4}\n"
    "maskAddress{255.255.255.0 255.0.0.0 255.255.255.255}\n"
    "\n";

/// Reads a file of the class's own, with what only derived classes may call.
template <class Config>
class Loaded : public Config {
public:
    explicit Loaded(const Installation& site, const std::string& content = kSample) {
        std::FILE* file = site.file(content);
        this->readGeneralConfigFile(file);
        std::fclose(file);
        this->setName("x");
    }
};

}  // namespace kp::test
