#!/usr/bin/env python3
"""Writes resources/Certifications.plist from the rating tables below.

Each country's array lists its movie ratings first and its TV ratings after
them, each block ordered from least to most restricted. Translation walks a
country's array and takes the first entry whose rank reaches the source rank,
skipping non-TV entries for TV; so movies must come first (a movie never
lands on a TV rating of the same rank) and each block must rise in rank.

"Unrated" rows carry rank 900 rather than the non-numeric rank some tables
use: a rank that parses as 0 would sort an unrated title as the least
restricted. Sitting at the end of a block, they also catch a source rank that
no other rating of the target reaches, instead of falling back to the first
(least restricted) entry.

Usage: gen-certifications.py [output]   (default: resources/Certifications.plist)
"""

import os
import plistlib
import sys

# country -> [(type, [(rating, rank), ...]), ...]; blocks in array order.
TABLES = {
    "US": [
        ("mpaa", [("NR", "000"), ("G", "100"), ("PG", "200"), ("PG-13", "300"), ("R", "400"),
                  ("NC-17", "500"), ("Unrated", "900")]),
        ("us-tv", [("TV-Y", "100"), ("TV-Y7", "200"), ("TV-G", "300"), ("TV-PG", "400"),
                   ("TV-14", "500"), ("TV-MA", "600"), ("Unrated", "900")]),
    ],
    "GB": [
        ("uk-movie", [("NR", "000"), ("E", "000"), ("U", "100"), ("Uc", "150"), ("PG", "200"),
                      ("12", "300"), ("12A", "325"), ("15", "350"), ("18", "400"),
                      ("R18", "600"), ("Unrated", "900")]),
        ("uk-tv", [("Caution", "500")]),
    ],
    "DE": [
        ("de-movie", [("Ab 0 Jahren", "075"), ("Ab 6 Jahren", "100"), ("Ab 12 Jahren", "200"),
                      ("Ab 16 Jahren", "500"), ("Ab 18 Jahren", "600")]),
        ("de-tv", [("Ab 0 Jahren", "075"), ("Ab 6 Jahren", "100"), ("Ab 12 Jahren", "200"),
                   ("Ab 16 Jahren", "500"), ("Ab 18 Jahren", "600")]),
    ],
    "FR": [
        ("fr-movie", [("Tout public", "000"), ("-10", "100"), ("-12", "300"), ("-16", "375"),
                      ("-18", "400"), ("Unrated", "900")]),
        ("fr-tv", [("-10", "100"), ("-12", "200"), ("-16", "500"), ("-18", "600")]),
    ],
    "CA": [
        ("ca-movie", [("G", "100"), ("PG", "200"), ("14A", "300"), ("18A", "350"), ("R", "400"),
                      ("A", "500"), ("Unrated", "900")]),
        ("ca-tv", [("E", "000"), ("C", "050"), ("C8", "075"), ("G", "100"), ("PG", "200"),
                   ("14+", "300"), ("18+", "350"), ("21+", "500")]),
    ],
    # "Not Rated" is open to all audiences (rank 000, as in purchased files);
    # "MA 15+" is spelled as in purchased files, which also matches the
    # movie database's name.
    "AU": [
        ("au-movie", [("Not Rated", "000"), ("G", "100"), ("PG", "200"), ("M", "350"),
                      ("MA 15+", "375"), ("R18+", "400"), ("UNRATED", "900")]),
        ("au-tv", [("P", "100"), ("C", "200"), ("G", "300"), ("PG", "400"), ("M", "500"),
                   ("MA15+", "550"), ("AV15+", "575"), ("R18+", "600")]),
    ],
    "NZ": [
        ("nz-movie", [("G", "100"), ("PG", "200"), ("M", "300"), ("R13", "325"), ("RP13", "325"),
                      ("R15", "350"), ("R16", "375"), ("RP16", "375"), ("R18", "400"),
                      ("R", "500"), ("UNRATED", "900")]),
        ("nz-tv", [("G", "200"), ("PGR", "400"), ("AO", "600"), ("UNRATED", "900")]),
    ],
    "IE": [
        ("ie-movie", [("Not Rated", "000"), ("G", "100"), ("PG", "200"), ("12", "300"),
                      ("15", "350"), ("16", "375"), ("18", "400"), ("Unrated", "900")]),
        ("ie-tv", [("G", "100"), ("PG", "350"), ("12", "400"), ("15", "500"), ("18", "600")]),
    ],
    "JP": [
        ("jp-movie", [("G", "100"), ("PG12", "200"), ("R15+", "300"), ("R18+", "400"),
                      ("Unrated", "900")]),
    ],
    "BR": [
        ("br-movie", [("L", "000"), ("12", "100"), ("14", "300"), ("16", "350"), ("18", "400")]),
    ],
    "PY": [
        ("py-movie", [("ATP", "000"), ("SAM13", "300"), ("15", "350"), ("SAM16", "375"),
                      ("SAM18", "400"), ("UR", "900")]),
        ("py-tv", [("0+", "100"), ("5+", "150"), ("7+", "200"), ("9+", "250"), ("12+", "350"),
                   ("15+", "450"), ("18+", "600")]),
    ],
    "IT": [
        ("it-movie", [("T", "100"), ("VPA", "125"), ("VM10", "150"), ("VM12", "200"),
                      ("VM14", "325"), ("VM18", "400")]),
    ],
    "MX": [
        ("mx-movie", [("AA", "000"), ("A", "100"), ("B", "300"), ("B-15", "500"), ("C", "600")]),
    ],
    "NL": [
        ("nl-movie", [("AL", "000"), ("6", "100"), ("9", "200"), ("12", "300"), ("16", "500"),
                      ("18", "600")]),
    ],
    # Ranks as found in files bought from the store.
    "SE": [
        ("se-movie", [("Barntillåten", "100"), ("Från 7 År", "125"), ("Från 11 År", "150"),
                      ("Från 15 År", "350"), ("Unrated", "900")]),
    ],
    "CH": [
        ("ch-movie", [("0", "050"), ("6", "075"), ("7", "125"), ("10", "150"), ("12", "200"),
                      ("14", "325"), ("16", "375"), ("18", "400"), ("Unrated", "900")]),
    ],
    "RU": [
        ("ru-movie", [("0+", "000"), ("6+", "150"), ("12+", "200"), ("16+", "375"),
                      ("18+", "400"), ("Unrated", "900")]),
    ],
    "PH": [
        ("ph-movie", [("G", "100"), ("PG", "300"), ("R-13", "325"), ("R-16", "375"),
                      ("R-18", "400"), ("Unrated", "900")]),
    ],
    "HK": [
        ("hk-movie", [("第i類", "100"), ("第ii類", "400"), ("未作評級", "900")]),
    ],
    "CZ": [
        ("cz-movies", [("U", "100"), ("12+", "200"), ("15+", "350"), ("18+", "400"),
                       ("neklasifikováno", "900")]),
    ],
    "IN": [
        ("in-movies", [("U", "000"), ("UA", "200"), ("A", "500"), ("S", "600"),
                       ("रेट नहीं की गई", "900")]),
        ("in-tv", [("U", "100"), ("UA", "200"), ("A", "600"), ("S", "800")]),
    ],
}


def source_country(system):
    prefix = system[:2]
    return "GB" if prefix == "uk" else prefix.upper()


def build():
    table = {}
    for country, blocks in TABLES.items():
        entries = []
        for system, ratings in blocks:
            if source_country(system) != country and system != "mpaa":
                raise SystemExit(f"{country}: type {system} names another country")
            ranks = [int(rank) for _, rank in ratings]
            if ranks != sorted(ranks):
                raise SystemExit(f"{country}/{system}: ranks must not decrease")
            for rating, rank in ratings:
                entries.append({"type": system, "rating": rating, "rank": rank})
        table[country] = entries
    return table


def main():
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(root, "resources",
                                                             "Certifications.plist")
    with open(out, "wb") as f:
        plistlib.dump(build(), f, fmt=plistlib.FMT_XML, sort_keys=True)


if __name__ == "__main__":
    main()
