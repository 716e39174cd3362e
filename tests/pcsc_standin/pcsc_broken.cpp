// A libpcsclite.so.1 that cannot be loaded with RTLD_NOW: it calls a function that nothing
// defines. Used to test the path where the PC/SC library is absent (the system's own
// libpcsclite.so.1 is installed, so an empty directory would not hide it).
extern "C" void korjnidr_standin_unresolved(void);
extern "C" void SCardEstablishContext(void) { korjnidr_standin_unresolved(); }
