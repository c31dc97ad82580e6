// osident.h: the identity services' part in a forked child.
#ifndef ETC_OSIDENT_H
#define ETC_OSIDENT_H

void os_ident_fork_child();  // the temporary-file cleaner mutex is free, unless the forking thread holds it

#endif
