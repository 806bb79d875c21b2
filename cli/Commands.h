#pragma once

#include <QStringList>

namespace cli {

// Exit statuses shared by every command.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

// Runs one command line (element 0 is the program) and answers its exit status.
int run(const QStringList& arguments);

} // namespace cli
