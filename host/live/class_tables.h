// SPDX-License-Identifier: Apache-2.0
// class_tables.h: the module's tables of classes, as the kernel's program takes them.
//
// One place for which header is of which class: the module's. Used by: the live card, tests. Pure.
#pragma once

#include "chip/kernel/record.h"

namespace host {

kernel_classes class_tables();

}  // namespace host
