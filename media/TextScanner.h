#pragma once

#include <QString>
#include <QtGlobal>

// A cursor over a text for reading tool reports token by token. Before every
// token the characters of the skip set are passed over. Nothing ever reads or
// moves past the end of the text.
class TextScanner {
public:
    enum class Skip {
        BlanksAndNewlines, // blanks, tabs, newlines (the default)
        Blanks,            // blanks and tabs only: a newline is a token
        None,
    };

    explicit TextScanner(const QString& text) : m_text(text) {}

    const QString& string() const { return m_text; }
    qsizetype scanLocation() const { return m_location; }
    // Clamped to the text, so a step past the end stops at the end.
    void setScanLocation(qsizetype location);
    void advance(qsizetype count) { setScanLocation(m_location + count); }

    Skip charactersToBeSkipped() const { return m_skip; }
    void setCharactersToBeSkipped(Skip skip) { m_skip = skip; }

    // True when only skippable characters are left.
    bool isAtEnd() const;

    // Skips the skip set, then takes everything up to `stop` (or to the end
    // when `stop` does not follow). Fails, leaving the cursor and `into`
    // untouched, when not a single character could be taken.
    bool scanUpToString(const QString& stop, QString* into = nullptr);
    // Skips the skip set, then consumes `string` when the text continues with
    // it exactly. On failure the cursor does not move.
    bool scanString(const QString& string);
    // An optionally signed decimal integer; saturates instead of overflowing.
    bool scanInteger(qint64* value);

private:
    bool skippable(QChar c) const;
    qsizetype skipped(qsizetype from) const;

    QString m_text;
    qsizetype m_location = 0;
    Skip m_skip = Skip::BlanksAndNewlines;
};
