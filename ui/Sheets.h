#pragma once

#include <QString>

class QDialog;
class QLabel;
class QVBoxLayout;
class QWidget;

// Shared pieces of the window's dialogs.

// Runs `dialog` window-modal on its parent (application-modal without one)
// and answers its result once it has closed.
int runSheet(QDialog& dialog);

// A bold heading and a wrapped body text (links open in the browser).
QLabel* sheetHeading(const QString& text, QWidget* parent);
QLabel* sheetBody(const QString& text, QWidget* parent);
// The alert layout: the image `image` on the left, and the column answered
// for the rest on the right.
QVBoxLayout* sheetWithIcon(QDialog* dialog, const QString& image);
