// Fields for solvers and interaction programs written in C++.
#pragma once

#include "interaction.h"
#include "solver.h"
