#include "metadata/GenresPanelController.h"

#include "core/SettingsKeys.h"
#include "core/UserDefaults.h"

#include <QVariant>

namespace {

const QString kNewGenre = QStringLiteral("New Genre");

QStringList loadList() {
    QStringList list;
    for (const QVariant& v : UserDefaults::standard().arrayForKey(SettingsKey::GenreList))
        list.append(v.toString());
    return list;
}

QVariantMap loadMap() {
    return UserDefaults::standard().dictionaryForKey(SettingsKey::GenreMap);
}

// Points every entry mapped to `from` at `to`.
void remap(QVariantMap& map, const QString& from, const QString& to) {
    for (auto it = map.begin(); it != map.end(); ++it) {
        if (it->toString() == from)
            *it = to;
    }
}

} // namespace

GenresPanelController::GenresPanelController(QObject* parent) : QObject(parent) {}

QStringList GenresPanelController::genreList() const {
    return loadList();
}

QList<GenresPanelController::MapRow> GenresPanelController::genreMapRows() const {
    QList<MapRow> rows;
    const QVariantMap map = loadMap();
    for (auto it = map.constBegin(); it != map.constEnd(); ++it)
        rows.append({it.key(), it->toString()});
    return rows;
}

void GenresPanelController::save(const QStringList& list, const QVariantMap& map) {
    UserDefaults& defaults = UserDefaults::standard();
    defaults.setObject(QVariant(list), SettingsKey::GenreList);
    defaults.setObject(map, SettingsKey::GenreMap);
    if (!defaults.synchronize())
        qWarning("Tarnwick: cannot write the genre settings to %s",
                 qPrintable(defaults.storePath()));
}

int GenresPanelController::onAddGenre(int row) {
    QStringList list = loadList();
    if (row < 0 || row > list.size())
        return -1;
    list.insert(row, kNewGenre);
    save(list, loadMap());
    emit tablesChanged();
    return row;
}

bool GenresPanelController::onDeleteGenre(int row) {
    QStringList list = loadList();
    if (row < 0 || row >= list.size())
        return false;
    const QString removed = list.takeAt(row);
    QVariantMap map = loadMap();
    if (!list.contains(removed))
        remap(map, removed, QString(""));
    save(list, map);
    emit tablesChanged();
    return true;
}

bool GenresPanelController::renameGenre(int row, const QString& name) {
    QStringList list = loadList();
    const QString newName = name.trimmed();
    if (row < 0 || row >= list.size() || newName.isEmpty())
        return false;
    const QString oldName = list.at(row);
    if (oldName == newName)
        return true;
    list[row] = newName;
    QVariantMap map = loadMap();
    if (!list.contains(oldName))
        remap(map, oldName, newName);
    save(list, map);
    emit tablesChanged();
    return true;
}

bool GenresPanelController::setMapping(const QString& tmdbGenre, const QString& genre) {
    QVariantMap map = loadMap();
    const QStringList list = loadList();
    if (!map.contains(tmdbGenre) || (!genre.isEmpty() && !list.contains(genre)))
        return false;
    map.insert(tmdbGenre, genre.isNull() ? QString("") : genre);
    save(list, map);
    emit tablesChanged();
    return true;
}

int GenresPanelController::move(int row, int to) {
    QStringList list = loadList();
    if (row < 0 || row >= list.size() || to < 0 || to >= list.size())
        return -1;
    list.swapItemsAt(row, to);
    save(list, loadMap());
    emit tablesChanged();
    return to;
}

int GenresPanelController::onMoveGenreUp(int row) {
    return move(row, row - 1);
}

int GenresPanelController::onMoveGenreDown(int row) {
    return move(row, row + 1);
}

void GenresPanelController::onResetDefaults() {
    UserDefaults& defaults = UserDefaults::standard();
    QStringList list;
    for (const QVariant& v : defaults.arrayForKey(SettingsKey::DefaultGenreList))
        list.append(v.toString());
    save(list, defaults.dictionaryForKey(SettingsKey::DefaultGenreMap));
    emit tablesChanged();
}
