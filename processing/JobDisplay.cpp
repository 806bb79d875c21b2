#include "processing/JobDisplay.h"

void JobDisplay::setTitleField(const QString& text) {
    if (text == m_titleField)
        return;
    m_titleField = text;
    emit titleFieldChanged(text);
}

void JobDisplay::setTimeField(const QString& text) {
    if (text == m_timeField)
        return;
    m_timeField = text;
    emit timeFieldChanged(text);
}

void JobDisplay::setStatusField(const QString& text) {
    if (text == m_statusField)
        return;
    m_statusField = text;
    emit statusFieldChanged(text);
}

void JobDisplay::setCountField(const QString& text) {
    if (text == m_countField)
        return;
    m_countField = text;
    emit countFieldChanged(text);
}

void JobDisplay::setProgressIndicator(double percent) {
    if (percent == m_progressIndicator)
        return;
    m_progressIndicator = percent;
    emit progressIndicatorChanged(percent);
}

void JobDisplay::setProgressAnimating(bool animating) {
    if (animating == m_progressAnimating)
        return;
    m_progressAnimating = animating;
    emit progressAnimatingChanged(animating);
}

void JobDisplay::setProgressViewVisible(bool visible) {
    if (visible == m_progressViewVisible)
        return;
    m_progressViewVisible = visible;
    emit progressViewVisibleChanged(visible);
}
