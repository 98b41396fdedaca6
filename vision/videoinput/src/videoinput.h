// The entry points of libvideoinput: a broker calls _createModule once after loading the library.
#pragma once

#include <boost/shared_ptr.hpp>
#include <map>
#include <string>

#include "oxbroker.h"
#include "oxvalue.h"

extern "C" {

// Reads VideoInput.xml through the broker's preference service and creates the camera module it
// names. 0 when a camera module was created, 1 when none was.
int _createModule(boost::shared_ptr<OX::OXBroker> pBroker);
// Does nothing: the camera module ends when its broker releases it. Always 0.
int _closeModule();

// Module names known to _createModule and their ids.
extern std::map<std::string, int> moduleNameMap;
// The whole parsed preference file, kept for the life of the process.
extern OX::OXValue fPreferences;
// Exported for whoever links against them; no code of the library reads or writes them.
extern int actualModule;
extern int moduleNameId;
extern bool _videoinput_running;
extern unsigned char _videoinput_termination[40];
}
