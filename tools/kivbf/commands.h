// Commands of the kivbf tool; each takes the arguments after its name.
#pragma once

int Command_Info(int argc, char **argv);     // cmd_info.cpp
int Command_Process(int argc, char **argv);  // cmd_process.cpp
int Command_Demo(int argc, char **argv);     // cmd_demo.cpp
int Command_Pattern(int argc, char **argv);  // cmd_pattern.cpp
int Command_Eval(int argc, char **argv);     // cmd_eval.cpp
int Command_Locate(int argc, char **argv);   // cmd_locate.cpp
