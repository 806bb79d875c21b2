#pragma once

#include <QString>

class MDI_Media;
class TextScanner;

// Reading the encoder tool's scan report into a media item.
class MDI_Utility {
public:
    // The message a failed scan leaves in the item's warnings.
    static const char* const kNoValidTitle;

    // Sets the item's source type and adds a title for every title block of
    // the report. False (status 0 and the warning above) only when the tool
    // reported that it found no title. Every input ends, and what was read
    // before a malformed part is kept.
    static bool decodeScanString(const QString& text, MDI_Media& movie);

    // Whether the cursor stands at the end of a title's subtitle list (before
    // "HandBrake has exited.", the combing line or the next title). The
    // cursor is left where it was; `combing` tells whether the combing line
    // was seen.
    static bool isScanAtEnd(TextScanner& cursor, QString* text, bool* combing);
};
