#pragma once

#include <QString>

// The numeric iTunes genre of older files: the ID3 genre list shifted by one
// (codes 1 to 126), plus 255 for "none".
class MDB_Genres {
public:
    // The genre's name; a null QString for a code outside the table.
    static QString getGenreFromID(int genreID);
};
