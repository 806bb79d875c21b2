#pragma once

#include "support/TestSupport.h"
#include "tools/tmdbserver/LoopbackMovieDb.h"

#include <gtest/gtest.h>

namespace lookuptest {

// One loopback database for the whole test program; it serves from a thread
// of its own, so tests may block the main thread.
inline LoopbackMovieDb& server() {
    static LoopbackMovieDb* instance = [] {
        auto* db = new LoopbackMovieDb();
        QString error;
        if (!db->listen(0, &error))
            ADD_FAILURE() << "loopback server: " << error.toStdString();
        return db;
    }();
    return *instance;
}

} // namespace lookuptest
