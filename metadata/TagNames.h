#pragma once

// The tag vocabulary of a metadata record: every key of its tag dictionary and
// the special names that setTag() maps onto the numeric fields.
namespace TagName {
inline constexpr char Name[] = "Name";
inline constexpr char Artist[] = "Artist";
inline constexpr char AlbumArtist[] = "Album Artist";
inline constexpr char Album[] = "Album";
inline constexpr char Grouping[] = "Grouping";
inline constexpr char Composer[] = "Composer";
inline constexpr char Comments[] = "Comments";
inline constexpr char Genre[] = "Genre";
inline constexpr char ReleaseDate[] = "Release Date";
inline constexpr char TrackNumber[] = "Track #";
inline constexpr char DiskNumber[] = "Disk #";
inline constexpr char Tempo[] = "Tempo";
inline constexpr char TVShow[] = "TV Show";
inline constexpr char TVEpisodeNumber[] = "TV Episode #";
inline constexpr char TVNetwork[] = "TV Network";
inline constexpr char TVEpisodeID[] = "TV Episode ID";
inline constexpr char TVSeason[] = "TV Season";
inline constexpr char Description[] = "Description";
inline constexpr char LongDescription[] = "Long Description";
inline constexpr char SeriesDescription[] = "Series Description";
inline constexpr char Rating[] = "Rating";
inline constexpr char RatingAnnotation[] = "Rating Annotation";
inline constexpr char Studio[] = "Studio";
inline constexpr char Cast[] = "Cast";
inline constexpr char Director[] = "Director";
inline constexpr char Codirector[] = "Codirector";
inline constexpr char Producers[] = "Producers";
inline constexpr char Screenwriters[] = "Screenwriters";
inline constexpr char Lyrics[] = "Lyrics";
inline constexpr char Copyright[] = "Copyright";
inline constexpr char EncodedBy[] = "Encoded By";
inline constexpr char Keywords[] = "Keywords";
inline constexpr char Category[] = "Category";
inline constexpr char ContentID[] = "contentID";
inline constexpr char ArtistID[] = "artistID";
inline constexpr char PlaylistID[] = "playlistID";
inline constexpr char GenreID[] = "genreID";
inline constexpr char ComposerID[] = "composerID";
inline constexpr char XID[] = "XID";
inline constexpr char ITunesAccount[] = "iTunes Account";
inline constexpr char SortName[] = "Sort Name";
inline constexpr char SortArtist[] = "Sort Artist";
inline constexpr char SortAlbumArtist[] = "Sort Album Artist";
inline constexpr char SortAlbum[] = "Sort Album";
inline constexpr char SortComposer[] = "Sort Composer";
inline constexpr char SortTVShow[] = "Sort TV Show";

// Kept in the tag dictionary without being offered for display or editing.
inline constexpr char EncodingTool[] = "Encoding Tool";
inline constexpr char PurchaseDate[] = "Purchase Date";
inline constexpr char LanguageRegion[] = "Language Region";
inline constexpr char TMDbID[] = "TMDb ID";
inline constexpr char TMDbEID[] = "TMDb EID";
inline constexpr char TVDbID[] = "TVDb ID";
inline constexpr char TVDbEID[] = "TVDb EID";
inline constexpr char IMDbID[] = "IMDb ID";

// Names setTag() turns into the numeric fields instead of storing them.
inline constexpr char HDVideo[] = "HD Video";
inline constexpr char Gapless[] = "Gapless";
inline constexpr char ContentRating[] = "Content Rating";
inline constexpr char MediaKind[] = "Media Kind";

// The key of each one-entry dictionary in a list of people.
inline constexpr char PersonName[] = "name";
} // namespace TagName
