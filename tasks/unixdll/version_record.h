// version_record.h: the version record that the library carries in its data, and its print-on-request.
#ifndef UNIXDLL_VERSION_RECORD_H
#define UNIXDLL_VERSION_RECORD_H

// Its constructor writes the UNAME entry to standard output when VORNE_VERSION_INFO is set, to whatever value.
class dbversion_info {
public:
    dbversion_info();
};

#endif
