// Movie records from the database's answers: the movie node's fields,
// ratings by country and image lists.

#include "lookup/MDB_TheMovieDb.h"

#include "lookup/MDB_TheMovieDbFields.h"
#include "metadata/MDB_Certifications.h"
#include "metadata/MDB_MovieMetadata.h"
#include "metadata/TagNames.h"
#include "metadata/Utility.h"

#include <QJsonArray>

namespace {

using tmdb::tag;
using tmdb::text;

// The key exists and is not JSON null.
bool present(const QJsonObject& object, const QString& key) {
    const auto it = object.constFind(key);
    return it != object.constEnd() && !it->isNull() && !it->isUndefined();
}

bool nonEmptyArray(const QJsonObject& object, const QString& key) {
    return present(object, key) && object.value(key).isArray() &&
           !object.value(key).toArray().isEmpty();
}

// Every "name" followed by ", "; the trailing separator stays.
QString namesWithTrailingSeparator(const QJsonArray& array) {
    QString names;
    for (const QJsonValue& element : array)
        names += text(element.toObject().value(QStringLiteral("name"))) + QStringLiteral(", ");
    return names;
}

QString imageAddress(const QString& base, const QString& size, const QString& path) {
    return base + size + path;
}

struct ImageLists {
    QList<QUrl> thumbs;
    QList<QUrl> fullsizes;
};

void appendImages(const QJsonArray& images, const QJsonArray& sizes, const QString& base,
                  ImageLists& lists) {
    const QString thumbSize = sizes.isEmpty() ? QString() : sizes.first().toString();
    const QString fullSize = sizes.isEmpty() ? QString() : sizes.last().toString();
    for (const QJsonValue& image : images) {
        const QString path = text(image.toObject().value(QStringLiteral("file_path")));
        lists.thumbs.append(QUrl(imageAddress(base, thumbSize, path)));
        lists.fullsizes.append(QUrl(imageAddress(base, fullSize, path)));
    }
}

void setRating(MDB_Metadata& record, const QJsonObject& releases, const QString& country) {
    const QString ratingTag = tag(TagName::Rating);
    if (!present(releases, QStringLiteral("countries"))) {
        record.setTag(QStringLiteral(""), ratingTag);
        return;
    }
    const QJsonArray countries = releases.value(QStringLiteral("countries")).toArray();
    const QString certificationKey = QStringLiteral("certification");
    const QString countryKey = QStringLiteral("iso_3166_1");

    for (const QJsonValue& value : countries) {
        const QJsonObject entry = value.toObject();
        if (text(entry.value(countryKey)) != country)
            continue;
        if (present(entry, certificationKey)) {
            const QString code =
                MDB_Certifications::ratingCode(text(entry.value(certificationKey)), country);
            if (!code.isNull()) {
                record.setTag(code, ratingTag);
                return;
            }
        }
        break;
    }
    // An empty certification counts as one here.
    for (const QJsonValue& value : countries) {
        const QJsonObject entry = value.toObject();
        if (!present(entry, certificationKey))
            continue;
        record.setTag(MDB_Certifications::ratingTranslate(text(entry.value(certificationKey)),
                                                          text(entry.value(countryKey)), country,
                                                          false),
                      ratingTag);
        return;
    }
}

} // namespace

std::unique_ptr<MDB_Metadata> MDB_TheMovieDb::metadata(const QJsonObject& node,
                                                       const QString& country) {
    std::unique_ptr<MDB_Metadata> record = std::make_unique<MDB_MovieMetadata>();
    metadata(*record, node, country);
    return record;
}

MDB_Metadata& MDB_TheMovieDb::metadata(MDB_Metadata& record, const QJsonObject& node,
                                       const QString& country) {
    using namespace TagName;
    record.setMediaType(QStringLiteral("Movie"));
    record.setContentRatingType(QStringLiteral("None"));

    if (present(node, QStringLiteral("title"))) {
        const QString title = text(node.value(QStringLiteral("title")));
        record.setTag(title, tag(Name));
        record.setTag(title, tag(SortName));
    }
    if (present(node, QStringLiteral("release_date")))
        record.setTag(text(node.value(QStringLiteral("release_date"))), tag(ReleaseDate));
    if (present(node, QStringLiteral("overview"))) {
        const QString overview = text(node.value(QStringLiteral("overview")));
        record.setTag(overview, tag(Description));
        record.setTag(overview, tag(LongDescription));
    }
    if (present(node, QStringLiteral("releases")))
        setRating(record, node.value(QStringLiteral("releases")).toObject(), country);

    // Without "id" this is "0", on purpose.
    const QString id = QString::number(node.value(QStringLiteral("id")).toInteger());
    record.setTag(id, tag(TMDbID));
    record.setTmdb(tmdbPage(id));

    if (present(node, QStringLiteral("imdb_id"))) {
        const QString imdb = text(node.value(QStringLiteral("imdb_id")));
        if (imdb.size() < 3) {
            record.setImdb(QVariant());
            record.setTag(QStringLiteral(""), tag(IMDbID));
        } else {
            record.setImdb(imdbPage(imdb));
            record.setTag(imdb.mid(2), tag(IMDbID));
        }
    }
    if (present(node, QStringLiteral("tagline")))
        record.setTagLine(text(node.value(QStringLiteral("tagline"))));
    if (present(node, QStringLiteral("budget")))
        record.setBudget(node.value(QStringLiteral("budget")).toVariant());
    if (present(node, QStringLiteral("revenue")))
        record.setRevenue(node.value(QStringLiteral("revenue")).toVariant());
    if (present(node, QStringLiteral("vote_average")))
        record.setRating(node.value(QStringLiteral("vote_average")).toVariant());
    if (present(node, QStringLiteral("vote_count")))
        record.setVotes(node.value(QStringLiteral("vote_count")).toVariant());
    if (present(node, QStringLiteral("homepage")))
        record.setHomepage(QUrl(text(node.value(QStringLiteral("homepage")))));

    if (present(node, QStringLiteral("trailers"))) {
        const QJsonObject trailers = node.value(QStringLiteral("trailers")).toObject();
        if (nonEmptyArray(trailers, QStringLiteral("youtube"))) {
            const QJsonObject first =
                trailers.value(QStringLiteral("youtube")).toArray().first().toObject();
            record.setTrailer(youTubePage(text(first.value(QStringLiteral("source")))));
        }
    }

    if (nonEmptyArray(node, QStringLiteral("genres"))) {
        QStringList names;
        for (const QJsonValue& genre : node.value(QStringLiteral("genres")).toArray())
            names.append(text(genre.toObject().value(QStringLiteral("name"))));
        record.setTag(names.join(QStringLiteral(", ")), tag(Genre));
    }

    if (present(node, QStringLiteral("casts"))) {
        const QJsonObject casts = node.value(QStringLiteral("casts")).toObject();
        if (nonEmptyArray(casts, QStringLiteral("cast"))) {
            // The final ", " is kept: readers of this tag expect it.
            record.setTag(namesWithTrailingSeparator(casts.value(QStringLiteral("cast")).toArray()),
                          tag(Cast));
        }
        if (nonEmptyArray(casts, QStringLiteral("crew"))) {
            QString directors, writers, producers;
            for (const QJsonValue& value : casts.value(QStringLiteral("crew")).toArray()) {
                const QJsonObject member = value.toObject();
                const QString department = text(member.value(QStringLiteral("department")));
                const QString entry =
                    text(member.value(QStringLiteral("name"))) + QStringLiteral(", ");
                if (department == QLatin1String("Directing"))
                    directors += entry;
                else if (department == QLatin1String("Writing"))
                    writers += entry;
                else if (department == QLatin1String("Production"))
                    producers += entry;
            }
            // Set even when empty, in this order.
            record.setTag(producers, tag(Producers));
            record.setTag(writers, tag(Screenwriters));
            record.setTag(directors, tag(Director));
        }
    }

    if (nonEmptyArray(node, QStringLiteral("production_companies")))
        record.setTag(namesWithTrailingSeparator(
                          node.value(QStringLiteral("production_companies")).toArray()),
                      tag(Studio));

    const QJsonObject images = cachedConfiguration().value(QStringLiteral("images")).toObject();
    const QString base = text(images.value(QStringLiteral("secure_base_url")));
    const QJsonArray posterSizes = images.value(QStringLiteral("poster_sizes")).toArray();
    const QJsonArray backdropSizes = images.value(QStringLiteral("backdrop_sizes")).toArray();

    if (present(node, QStringLiteral("poster_path"))) {
        const QString smallest = posterSizes.isEmpty() ? QString() : posterSizes.first().toString();
        record.setArtworkURL(
            QUrl(imageAddress(base, smallest, text(node.value(QStringLiteral("poster_path"))))));
    }

    ImageLists posters, backdrops;
    if (present(node, QStringLiteral("images"))) {
        const QJsonObject appended = node.value(QStringLiteral("images")).toObject();
        if (present(appended, QStringLiteral("posters")))
            appendImages(appended.value(QStringLiteral("posters")).toArray(), posterSizes, base,
                         posters);
    }
    if (present(node, QStringLiteral("posters")) && record.artworkFullsizeURLs().isEmpty())
        appendImages(node.value(QStringLiteral("posters")).toArray(), posterSizes, base, posters);
    if (present(node, QStringLiteral("backdrops")))
        appendImages(node.value(QStringLiteral("backdrops")).toArray(), backdropSizes, base,
                     backdrops);

    if (!posters.thumbs.isEmpty()) {
        record.setArtworkThumbURLs(posters.thumbs);
        record.setArtworkFullsizeURLs(posters.fullsizes);
    }
    if (!backdrops.thumbs.isEmpty()) {
        record.setBackdropThumbURLs(backdrops.thumbs);
        record.setBackdropFullsizeURLs(backdrops.fullsizes);
    }
    return record;
}
