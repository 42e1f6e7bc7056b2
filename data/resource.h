// Numbers and symbols of the program's commands, controls, menus and dialogs.
// The language files refer to these symbols; the program reads this file at run time
// to map a symbol to its number.
#pragma once
