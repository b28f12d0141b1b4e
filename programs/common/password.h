// Where the programs get the administrator's password from.
#pragma once

#include <stdexcept>
#include <string>

namespace kp::programs {

/// A password that could not be had; what() is a sentence for the user.
class PasswordError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The first line of the file at @p path, without its line end.
/// Throws PasswordError when the file cannot be read.
std::string passwordFromFile(const std::string& path);

/// Asks for a password at the terminal, without echo; with @p twice, a second time to be sure.
/// Throws PasswordError when there is no terminal, no password is given, or the two differ.
std::string askPassword(const std::string& prompt, bool twice);

}  // namespace kp::programs
