#pragma once

#include "Services/Records/WireValue.h"

// A computer of another user that shares folders with this user. `status` is
// read as an integer. `error` is never filled from a reply.
struct OwnerComputers {
  WireValue tallowboxPath;
  WireValue cloudPath;
  WireValue computerId;
  WireValue isAdmin;
  WireValue isCloud;
  WireValue mailId;
  WireValue nickName;
  WireValue status;
  WireValue userComputerMapId;
  WireValue userId;
  WireValue error;
};
