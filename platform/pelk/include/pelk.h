// pelk.h - all of the layer between the project and POSIX; new code includes the header of its subject.
#ifndef PELK_H
#define PELK_H

#include "pelk_annotations.h"
#include "pelk_file.h"
#include "pelk_log.h"
#include "pelk_process.h"
#include "pelk_sync.h"
#include "pelk_thread.h"

#endif  // PELK_H
