#pragma once

#include <QDialog>

class QLineEdit;
class SearchPanelController;

// No hits for a name: rename and search again, or skip.
class SearchPanel : public QDialog {
    Q_OBJECT
public:
    SearchPanel(SearchPanelController& panel, QWidget* parent = nullptr);
    QLineEdit* newNameField() const { return m_newName; }

private:
    SearchPanelController& m_panel;
    QLineEdit* m_newName;
};
