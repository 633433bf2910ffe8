// How a query compares. Pass one of these at a time; a comparison that a query does not support matches nothing.
#pragma once

//                         flags and a mask            text                              number
enum LogicFlag : int {
  LOGIC_ALL = 1,        // every bit of the mask      contains, case-sensitive          -
  LOGIC_EQUAL = 2,      // equal                      equal, ignoring case              closer than 2e-12
  LOGIC_NONE = 4,       // no bit of the mask         does not contain                  -
  LOGIC_NOT_EQUAL = 8,  // not equal                  not equal, ignoring case          further apart than 2e-12
  LOGIC_LESS = 16,      // -                          sorts before, ignoring case       less
  LOGIC_GREATER = 32,   // -                          sorts after, ignoring case        greater
  LOGIC_ANY = 64        // some bit of the mask       -                                 -
};
