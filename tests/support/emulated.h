// Whether the tests run in an emulated machine, where an open takes some forty times as long.
#pragma once

#ifndef PELO_EMULATED
#define PELO_EMULATED 0
#endif
