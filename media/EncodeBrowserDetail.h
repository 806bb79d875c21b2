#pragma once

// Small helpers shared by the encode browser's source files.

#include "core/Resources.h"
#include "core/UserDefaults.h"

#include <QString>

namespace encode_browser {

inline QString tag(const char* name) {
    return QString::fromLatin1(name);
}

inline bool setting(const char* key) {
    return UserDefaults::standard().boolForKey(QString::fromLatin1(key));
}

inline QString resourceImage(const QString& name) {
    return Resources::path(name + QStringLiteral(".png"));
}

} // namespace encode_browser
