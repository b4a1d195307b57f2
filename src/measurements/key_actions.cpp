#include "src/measurements/key_actions.h"

namespace velmora::usage_stat {

const std::array<KeyAction, 62> kKeyActions = {{
    {"KA_abou", 1},  {"KA_appc", 2},  {"KA_blnk", 3},  {"KA_bmks", 4},  {"KA_btsw", 5},
    {"KA_calc", 6},  {"KA_cnts", 7},  {"KA_comm", 8},  {"KA_conf", 9},  {"KA_dict", 10},
    {"KA_drpc", 11}, {"KA_exit", 12}, {"KA_frst", 13}, {"KA_ftsk", 14}, {"KA_goto", 15},
    {"KA_hidp", 16}, {"KA_hist", 17}, {"KA_kill", 18}, {"KA_last", 19}, {"KA_link", 20},
    {"KA_lock", 21}, {"KA_lrus", 22}, {"KA_menu", 23}, {"KA_mmnu", 24}, {"KA_move", 25},
    {"KA_mp3", 26},  {"KA_mp3o", 27}, {"KA_mp3p", 28}, {"KA_mpdf", 29}, {"KA_nbmk", 30},
    {"KA_netw", 31}, {"KA_next", 32}, {"KA_nnot", 33}, {"KA_none", 0},  {"KA_note", 35},
    {"KA_nx10", 36}, {"KA_nxse", 37}, {"KA_obmk", 38}, {"KA_olnk", 39}, {"KA_onot", 40},
    {"KA_pgdn", 41}, {"KA_pgup", 42}, {"KA_pr10", 43}, {"KA_prev", 44}, {"KA_prof", 45},
    {"KA_prse", 46}, {"KA_rtte", 47}, {"KA_savp", 48}, {"KA_scrn", 49}, {"KA_spwr", 50},
    {"KA_srch", 51}, {"KA_stsk", 52}, {"KA_stty", 53}, {"KA_syst", 54}, {"KA_task", 55},
    {"KA_tctl", 56}, {"KA_volm", 57}, {"KA_volp", 58}, {"KA_zmin", 59}, {"KA_zoom", 60},
    {"KA_zout", 61}, {"KA_flgh", 62},
}};

}  // namespace velmora::usage_stat
