#!/usr/bin/env python3
"""Generates resources/ISO-639.plist from Debian's iso-codes data.

    scripts/gen-iso639.py [--iso-codes DIR] [--output FILE]

The property list holds four keys:

  "ISO-639-1"         two-letter code -> English language name
  "ISO-639-2"         three-letter code -> English language name; both the
                      terminologic ("fra") and the bibliographic ("fre") code of
                      a language are keys, so either form found in a scan report
                      resolves
  "ISO-639-1 Common"  two-letter codes of commonly used languages
  "ISO-639-2 Common"  the matching three-letter (terminologic) codes

A language has one name in both tables: the first of the names iso-codes lists
(the text before the first ";"), with a few inverted or over-qualified names
made readable (see NAME_FIXES). Track selection relies on this: the name of a
three-letter code is looked up among the values of the two-letter table.

Only the Python standard library is used; iso-codes is Debian's `iso-codes`
package (/usr/share/iso-codes/json).
"""

import argparse
import json
import os
import plistlib
import sys

# iso-codes name (text before ";") -> name used in the tables.
NAME_FIXES = {
    "Greek, Modern (1453-)": "Greek",
    "Occitan (post 1500)": "Occitan",
    "Interlingua (International Auxiliary Language Association)": "Interlingua",
    "Bokmål, Norwegian": "Norwegian Bokmål",
    "Ndebele, South": "South Ndebele",
    "Ndebele, North": "North Ndebele",
    "Sotho, Southern": "Southern Sotho",
}

# Commonly used languages (two-letter codes), in menu order.
COMMON = [
    "en", "fr", "de", "es", "it", "pt", "nl", "sv", "da", "no", "fi", "is",
    "pl", "cs", "sk", "hu", "ro", "el", "ru", "uk", "bg", "hr", "sr", "tr",
    "he", "ar", "fa", "hi", "th", "vi", "id", "ms", "zh", "ja", "ko", "ca",
]


def language_name(entry):
    name = entry["name"].split(";")[0].strip()
    return NAME_FIXES.get(name, name)


def build(iso_codes_dir):
    with open(os.path.join(iso_codes_dir, "iso_639-2.json"), encoding="utf-8") as f:
        entries = json.load(f)["639-2"]

    two, three, two_to_three = {}, {}, {}
    for entry in entries:
        name = language_name(entry)
        codes = [entry["alpha_3"], entry.get("bibliographic")]
        for code in codes:
            # Skips ranges such as "qaa-qtz".
            if code and len(code) == 3 and code.isalpha():
                three[code] = name
        if "alpha_2" in entry:
            two[entry["alpha_2"]] = name
            two_to_three[entry["alpha_2"]] = entry["alpha_3"]

    # One name per two-letter code, so that a name leads back to one code.
    seen = {}
    for code, name in two.items():
        if name in seen:
            sys.exit(f"gen-iso639: {code} and {seen[name]} share the name {name!r}")
        seen[name] = code

    missing = [c for c in COMMON if c not in two]
    if missing:
        sys.exit(f"gen-iso639: common codes unknown to iso-codes: {missing}")

    return {
        "ISO-639-1": two,
        "ISO-639-2": three,
        "ISO-639-1 Common": list(COMMON),
        "ISO-639-2 Common": [two_to_three[c] for c in COMMON],
    }


def main():
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--iso-codes", default="/usr/share/iso-codes/json",
                        help="folder holding iso_639-2.json")
    parser.add_argument("--output", default=os.path.join(root, "resources", "ISO-639.plist"))
    args = parser.parse_args()

    table = build(args.iso_codes)
    data = plistlib.dumps(table, fmt=plistlib.FMT_XML, sort_keys=True)
    tmp = args.output + ".tmp"
    with open(tmp, "wb") as f:
        f.write(data)
    os.replace(tmp, args.output)
    print(f"{args.output}: {len(table['ISO-639-1'])} two-letter, "
          f"{len(table['ISO-639-2'])} three-letter codes")


if __name__ == "__main__":
    main()
