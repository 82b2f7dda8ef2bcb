#pragma once

#include <QString>

class QFileInfo;

/**
 * @brief Fills *ref with the file at path and tells whether it is an existing file. A missing
 * file is first written empty when createFileIfNecessary is set; otherwise it is a failure.
 */
bool getFSRef(const QString &path, QFileInfo *ref, bool createFileIfNecessary);
