#pragma once

#include "metadata/GenresPanelController.h"

#include <QDialog>

#include <memory>

namespace Ui {
class GenresPanel;
}

// The genres sheet: the user's genre list (renamed in place, added,
// deleted, moved) beside the map from database genres to them, each row a
// "Mapped Genre" pop-up. Every edit is stored by the controller at once.
class GenresPanel : public QDialog {
    Q_OBJECT
public:
    explicit GenresPanel(QWidget* parent = nullptr);
    ~GenresPanel() override;

    GenresPanelController* controller() { return &m_controller; }

private:
    void reload();
    void select(int row);
    int selectedRow() const;
    void renamed(int row);

    std::unique_ptr<Ui::GenresPanel> m_ui;
    GenresPanelController m_controller;
    bool m_loading = false;
};
