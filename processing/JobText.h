#pragma once

class TextScanner;

// Reading numbers out of the tools' progress text.
namespace JobText {

// Skips the scanner's skip set, then reads a decimal number ("42", "-1.5",
// ".5", "2e3"). On failure the cursor does not move and `value` is untouched.
bool scanDouble(TextScanner& cursor, double* value);

} // namespace JobText
