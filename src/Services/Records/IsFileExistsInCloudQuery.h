#pragma once

#include "Services/Records/WireValue.h"

// Asks whether the server's store holds a file.
struct IsFileExistsInCloudQuery {
  WireValue strFullPath;
};
