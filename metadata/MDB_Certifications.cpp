#include "metadata/MDB_Certifications.h"

#include "core/Resources.h"

#include <QVariant>

#include <limits>

namespace {

const QString kResource = QStringLiteral("Certifications.plist");
const QString kType = QStringLiteral("type");
const QString kRating = QStringLiteral("rating");
const QString kRank = QStringLiteral("rank");
const QString kFallbackCountry = QStringLiteral("US");

QVariantMap loadTable() {
    return Resources::loadPropertyList(kResource).toMap();
}

// The country's entries; `found` says whether the table holds the country.
QVariantList entriesFor(const QVariantMap& table, const QString& country, bool* found) {
    const auto it = table.constFind(country);
    if (found)
        *found = it != table.constEnd();
    return it == table.constEnd() ? QVariantList() : it->toList();
}

QVariantList entriesWithFallback(const QString& country) {
    const QVariantMap table = loadTable();
    bool found = false;
    QVariantList entries = entriesFor(table, country, &found);
    return found ? entries : entriesFor(table, kFallbackCountry, nullptr);
}

QString codeOf(const QVariant& entry) {
    const QVariantMap e = entry.toMap();
    return MDB_Certifications::makeCode(e.value(kType).toString(), e.value(kRating).toString(),
                                        e.value(kRank).toString());
}

// Leading-integer parse: "075" is 75, "300abc" is 300, "???" is 0; ranks in
// files are not always clean numbers.
qint64 intValue(const QString& s) {
    qsizetype i = 0;
    while (i < s.size() && s.at(i).isSpace())
        ++i;
    bool negative = false;
    if (i < s.size() && (s.at(i) == u'-' || s.at(i) == u'+')) {
        negative = s.at(i) == u'-';
        ++i;
    }
    qint64 value = 0;
    for (; i < s.size() && s.at(i) >= u'0' && s.at(i) <= u'9'; ++i) {
        if (value > (std::numeric_limits<qint64>::max() - 9) / 10)
            break;
        value = value * 10 + (s.at(i).unicode() - u'0');
    }
    return negative ? -value : value;
}

} // namespace

QString MDB_Certifications::makeCode(const QString& type, const QString& rating,
                                     const QString& rank) {
    return type + u'|' + rating + u'|' + rank + u'|';
}

QStringList MDB_Certifications::countries() {
    return loadTable().keys();
}

QStringList MDB_Certifications::certificationCodes(const QString& country) {
    QStringList codes;
    for (const QVariant& entry : entriesWithFallback(country))
        codes.append(codeOf(entry));
    return codes;
}

QStringList MDB_Certifications::certificationNames(const QString& country) {
    QStringList names;
    for (const QVariant& entry : entriesWithFallback(country))
        names.append(entry.toMap().value(kRating).toString());
    return names;
}

QString MDB_Certifications::certification(const QString& country, qint64 index) {
    // Only the first entry is ever asked for; callers wanting others use
    // certificationCodes().
    if (index != 0)
        return {};
    const QVariantList entries = entriesWithFallback(country);
    return entries.isEmpty() ? QString() : codeOf(entries.first());
}

QString MDB_Certifications::ratingCode(const QString& rating, const QString& countryCode) {
    bool found = false;
    const QVariantList entries = entriesFor(loadTable(), countryCode, &found);
    if (!found || entries.isEmpty())
        return {};
    if (rating.isEmpty())
        return codeOf(entries.first());
    for (const QVariant& entry : entries) {
        if (entry.toMap().value(kRating).toString() == rating)
            return codeOf(entry);
    }
    // The database's names are often shorter forms of the table's ("12" for
    // "Ab 12 Jahren").
    for (const QVariant& entry : entries) {
        if (entry.toMap().value(kRating).toString().contains(rating))
            return codeOf(entry);
    }
    return codeOf(entries.first());
}

QString MDB_Certifications::certificationTranslate(const QString& code, const QString& countryCode,
                                                   bool tvCert) {
    if (code.isNull())
        return {};
    const QStringList pieces = code.split(u'|');
    if (pieces.size() < 3)
        return {};
    const QString type = pieces.at(0);
    const qint64 sourceRank = intValue(pieces.at(2));

    // Only two characters are compared, so "mpaa" never matches and US movie
    // ratings come out as country "MP"; they then go through the US table
    // like any foreign rating, which lands on the same entry.
    const QString prefix = type.left(2);
    QString sourceCountry;
    if (prefix == QLatin1String("mpaa"))
        sourceCountry = kFallbackCountry;
    else if (prefix == QLatin1String("uk"))
        sourceCountry = QStringLiteral("GB");
    else
        sourceCountry = prefix.toUpper();

    if (countryCode == sourceCountry)
        return code;

    bool found = false;
    const QVariantList entries = entriesFor(loadTable(), countryCode, &found);
    if (!found || entries.isEmpty())
        return {};
    for (const QVariant& entry : entries) {
        const QVariantMap e = entry.toMap();
        if (tvCert && !e.value(kType).toString().contains(QLatin1String("tv")))
            continue;
        if (intValue(e.value(kRank).toString()) >= sourceRank)
            return codeOf(entry);
    }
    return codeOf(entries.first());
}

QString MDB_Certifications::ratingTranslate(const QString& rating, const QString& countryCode,
                                            const QString& newCountry, bool tvCert) {
    return certificationTranslate(ratingCode(rating, countryCode), newCountry, tvCert);
}
