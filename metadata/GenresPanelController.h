#pragma once

#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <utility>

// The logic of the genres panel: the user's ordered "Genre List" and the
// "Genre Map" from database genres to those genres. Every action writes the
// settings at once; tablesChanged() tells the views to reload.
//
// Rows are positions in "Genre List"; a negative row means no selection.
class GenresPanelController : public QObject {
    Q_OBJECT
public:
    using MapRow = std::pair<QString, QString>; // database genre, mapped genre

    // Column titles of the map table.
    static constexpr char kTmdbGenreColumn[] = "tmDB Genre";
    static constexpr char kMappedGenreColumn[] = "Mapped Genre";

    explicit GenresPanelController(QObject* parent = nullptr);

    // The genre list table.
    QStringList genreList() const;
    // The map table in the dictionary's key order; an empty mapped genre is "none".
    QList<MapRow> genreMapRows() const;

    // Inserts "New Genre" at the row (a row just past the end appends, so an
    // empty list can be started). Answers the new genre's row, or -1.
    int onAddGenre(int row);
    // Removes the genre; map entries pointing to it become "" unless the same
    // name is still in the list. Answers false for no or a bad selection.
    bool onDeleteGenre(int row);
    // Renames the genre and moves the map entries that pointed to the old
    // name. An empty name is refused.
    bool renameGenre(int row, const QString& name);
    // Maps a database genre of the map to a genre of the list, or to "" for
    // none; anything else is refused.
    bool setMapping(const QString& tmdbGenre, const QString& genre);
    // Swap with the neighbour; answer the genre's new row (the selection to
    // keep), or -1 when it cannot move.
    int onMoveGenreUp(int row);
    int onMoveGenreDown(int row);
    // Copies "Default Genre Map" and "Default Genre List" back.
    void onResetDefaults();

signals:
    void tablesChanged();

private:
    static void save(const QStringList& list, const QVariantMap& map);
    int move(int row, int to);
};
