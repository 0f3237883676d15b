#pragma once

#include <string>

namespace skelda::tools {

/// The program that would run in what is named: a folder *.appex, a *.app with one such folder in
/// it, or the program itself. It need not be there: an agent looks for its bundle from its program
/// upwards. Throws, with a sentence, where nothing of that name is there, or several.
std::string programOfBundle(const std::string& named);

}  // namespace skelda::tools
