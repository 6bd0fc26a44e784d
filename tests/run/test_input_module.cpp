// read_input on whole keyword files.
#include "base/error_module.hpp"
#include "base/io_module.hpp"
#include "run/input_module.hpp"
#include "test_support.hpp"

#include <gtest/gtest.h>

namespace {

using namespace lyrt;

class ReadInput : public lyrt_test::program_test {
  protected:
    void SetUp() override {
        program_test::SetUp();
        tb_model.r_cut = 6.6;
        tb_model.pair_pot_used = true;
    }
    void TearDown() override {
        program_test::TearDown();
        trace_reset();
        debug = 0;
    }
    void read(const std::string& text) {
        lyrt_test::write_text(dir / "INLYRT", text);
        read_input("INLYRT", elec_algo, i_algo, tb_model, kpt, system_name, n_electrons, n_states,
                   n_h_dup);
    }
    std::vector<std::string> errors() {
        flush(error_unit);
        return lyrt_test::read_lines(dir / "ERRLYRT");
    }
    elec_algo_type elec_algo;
    i_algo_type i_algo;
    tb_model_type tb_model;
    kpt_type kpt;
    std::string system_name;
    double n_electrons = 0.0;
    int n_states = 0, n_h_dup = 0;
};

TEST_F(ReadInput, EmptyFileGivesDefaults) {
    read("");
    EXPECT_EQ(system_name, "unknown");
    EXPECT_EQ(tb_model.r_cut, 6.6);
    EXPECT_EQ(elec_algo.lo_rad, 6.6);
    EXPECT_TRUE(tb_model.pair_pot_used);
    EXPECT_EQ(elec_algo.gs, 2);
    EXPECT_EQ(elec_algo.md, 2);
    EXPECT_EQ(n_electrons, -1.0);
    EXPECT_EQ(n_states, -1);
    EXPECT_EQ(i_algo.n_steps, -1);
    EXPECT_EQ(i_algo.eom_algo, 1);
    EXPECT_TRUE(i_algo.calc_forces);
    EXPECT_TRUE(elec_algo.eigen_vect);
    EXPECT_EQ(i_algo.temperature, 300.0);
    EXPECT_EQ(elec_algo.kernel, 'J');
    EXPECT_EQ(n_h_dup, 1);
    EXPECT_EQ(i_algo.save_to_file, save_pos + save_ene);
    EXPECT_EQ(data_file_names.pos, "POS");
    EXPECT_EQ(data_file_names.ene, "ENE");
    EXPECT_EQ(kpt.sigma, 0.0);
    EXPECT_EQ(elec_algo.dt, 1.0);
}

TEST_F(ReadInput, ValuesAliasesAndModelOverrides) {
    read("system_name =  diamond Si\n"
         "r_cut = 5.0\n"
         "number_of_electrons = 8 ; n_electrons = 4\n"
         "elec_gs_algo = 4\n"
         "ions_algo = 1 ; ionic_algo = 3\n"
         "sigma = 0.1; dt = 0.5\n"
         "ionic_dyn_mode = 3\n"
         "temperature_seed_1 = 11 ; temp_seed_1 = 22 ; temperature_seed_2 = 33\n"
         "pair_pot_used = F\n"
         "kernel = Lorentz\n");
    EXPECT_EQ(system_name, "diamond Si");
    EXPECT_EQ(tb_model.r_cut, 5.0);
    EXPECT_EQ(elec_algo.lo_rad, 5.0);
    EXPECT_EQ(n_electrons, 4.0); // the later alias wins
    EXPECT_EQ(elec_algo.md, 4);  // defaults to the ground-state solver
    EXPECT_EQ(i_algo.algo, 1);   // ions_algo is read after ionic_algo
    EXPECT_EQ(kpt.sigma, 0.1);
    EXPECT_EQ(elec_algo.dt, 0.5);
    EXPECT_EQ(i_algo.dyn_mode, 3);
    EXPECT_EQ(i_algo.temp_seed[0], 22);
    EXPECT_EQ(i_algo.temp_seed[1], 33);
    EXPECT_FALSE(tb_model.pair_pot_used);
    EXPECT_EQ(elec_algo.kernel, 'L');
}

TEST_F(ReadInput, StepsAndForcesRules) {
    read("n_steps = 0\n");
    EXPECT_EQ(i_algo.n_steps, -1);
    read("n_steps = 5\ncalc_forces = F\neigen_vect = F\n");
    EXPECT_EQ(i_algo.n_steps, 5);
    EXPECT_TRUE(i_algo.calc_forces);
    EXPECT_TRUE(elec_algo.eigen_vect);
    EXPECT_EQ(errors().size(), 20u); // no warning
    read("calc_stress = T\ncalc_forces = F\n");
    EXPECT_FALSE(i_algo.calc_forces);
    EXPECT_FALSE(elec_algo.eigen_vect); // follows calc_forces
    auto err = errors();
    ASSERT_GE(err.size(), 3u);
    EXPECT_EQ(err[err.size() - 3], " !!! WARNING !!!  ");
    EXPECT_EQ(err.back(), "        calc_forces is forced to T, because calc_stress is");
}

TEST_F(ReadInput, ThermostatRules) {
    // A Nose-Hoover thermostat without its mass cannot run (it divides by it).
    try {
        read("thermostat = 1\n");
        FAIL() << "Nose-Hoover without a mass must stop";
    } catch (const fatal_stop& stop) {
        EXPECT_EQ(stop.message, "Nose mass for the ions is zero.Set q_nose_ions.");
    }
    io_reset();
    open_units();
    try {
        read("ionic_thermostat = 2\n");
        FAIL() << "Langevin without friction must stop";
    } catch (const fatal_stop& stop) {
        EXPECT_EQ(stop.message, "you are using langevin dynamics but the ionic friction "
                                "coeffcient is undefined.set ionic_friction.");
        EXPECT_EQ(stop.number, -1);
    }
    io_reset();
    open_units();
    read("thermostat = 2 ; gamma = 0.01\n");
    EXPECT_EQ(i_algo.friction, 0.01);
    io_reset();
    open_units();
    try {
        read("thermostat = 3\n");
        FAIL() << "velocity rescaling without its time must stop";
    } catch (const fatal_stop& stop) {
        EXPECT_EQ(stop.message, "thermostat = 3 (canonical velocity rescaling) needs tau_t, its "
                                "relaxation time in fs, above 0");
    }
    io_reset();
    open_units();
    read("thermostat = 3\ntau_t = 40\n");
    EXPECT_EQ(i_algo.tau_t, 40.0);
}

// A barostat needs its time, velocity Verlet and a run that moves; it switches
// the stress on, and outside dynamics it warns and leaves the cell alone.
TEST_F(ReadInput, BarostatRules) {
    const std::string md = "ions_algo = 0\nn_steps = 5\nions_eom_algo = 2\n";
    const std::pair<std::string, std::string> refused[] = {
        {md + "barostat = 1\n", "a barostat needs tau_p, its relaxation time in fs, above 0"},
        {"ions_algo = 0\nn_steps = 5\nions_eom_algo = 1\nbarostat = 2\ntau_p = 50\n",
         "a barostat moves the cell with the velocities of velocity Verlet: set ions_eom_algo = 2"},
        {md + "barostat = 3\n", "barostat = 3 is not a code of the program: its codes are 0 to 2"},
        {md + "barostat = 1\ntau_p = 50\nelec_gs_algo = 4\nelec_md_algo = 4\n",
         "a barostat moves the cell by the stress, and the kernel polynomial solver has no "
         "electronic stress: choose the diagonalisation (2) or the linear-scaling solver (5)"}};
    for (const auto& [input, message] : refused) {
        io_reset();
        open_units();
        try {
            read(input);
            FAIL() << input;
        } catch (const fatal_stop& stop) {
            EXPECT_EQ(stop.message, message);
        }
    }
    io_reset();
    open_units();
    read(md + "barostat = 2\ntau_p = 50\n");
    EXPECT_TRUE(i_algo.calc_stress);
    EXPECT_EQ(i_algo.barostat, barostat_anisotropic);
    io_reset();
    open_units();
    read("ions_algo = 1\nn_steps = 5\nbarostat = 1\ntau_p = 50\n");
    EXPECT_EQ(i_algo.barostat, barostat_none);
    EXPECT_FALSE(i_algo.calc_stress);
    EXPECT_EQ(errors().back(), "        a barostat moves the cell in dynamics (ions_algo = 0 with "
                               "n_steps > 0) only: the cell of this run stays as it is");
}

TEST_F(ReadInput, SaveToFileSelectsAndRenames) {
    read("save_to_file = force\n"
         "save_to_file = pos traj.xyz\n"
         "save_to_file = eloc\n"
         "save_to_file = nonsense\n"
         "save_to_file = EIGENVALUES my_Eig\n");
    EXPECT_EQ(i_algo.save_to_file, save_pos + save_ene + save_for + save_eig);
    EXPECT_EQ(data_file_names.force, "FOR");
    EXPECT_EQ(data_file_names.pos, "traj.xyz");
    EXPECT_EQ(data_file_names.eig, "my_Eig");
    EXPECT_EQ(data_file_names.eloc, "");
    read("calc_elocal = T\nsave_to_file = elo\n");
    EXPECT_EQ(i_algo.save_to_file, save_pos + save_ene + save_eloc);
    EXPECT_EQ(data_file_names.eloc, "ELOC");
}

// Codes the program does not have and values outside their physical range stop at
// once, naming the keyword, the value and what exists; the edges of each range pass.
TEST_F(ReadInput, UnknownCodesAndValuesOutOfRangeStop) {
    const std::string code = " is not a code of the program: its codes are ";
    const std::string range = " is out of range: ";
    const std::pair<const char*, std::string> refused[] = {
        {"elec_gs_algo = 7", code + "0 to 5"},
        {"elec_gs_algo = -1", code + "0 to 5"},
        {"elec_md_algo = 8", code + "0 to 5"},
        {"ions_algo = 7", code + "0 to 5"},
        {"ions_eom_algo = 5", code + "1 to 2"},
        {"thermostat = 9", code + "0 to 3"},
        {"veloc_start = 5", code + "0 to 4"},
        {"elec_start = 2", code + "0 to 1"},
        {"temperature = -5", range + "a temperature must be 0 K or more"},
        {"sigma = -0.1", range + "the smearing width must be 0 or more"},
        {"ls_eps_filter = 0", range + "the filter of the block products must lie between 0 and 1"},
        {"dos_sigma = 0", range + "the width of the density of states must be above 0"},
        {"friction = -0.01", range + "a friction must be 0 or more"},
        {"q_nose_ions = -3", range + "a thermostat mass must be 0 or more"},
        {"emass = -1", range + "an orbital mass must be 0 or more"},
        {"dt = 0 ; n_steps = 3",
         range + "a run with steps needs a step above 0 (fs, or Angstrom for the self-tests)"},
        {"status_output_freq = 0", range + "steps between reports must be 1 or more"},
        {"driver_port = 70000", range + "a port is 1 to 65535, or 0 for a UNIX socket"},
        {"driver_timeout = 0", range + "the seconds a message may take must be above 0"}};
    for (const auto& [input, message] : refused) {
        const std::string statement = input, shown = statement.substr(0, statement.find(" ;"));
        try {
            read(statement + "\n");
            ADD_FAILURE() << input << " must stop";
        } catch (const fatal_stop& stop) {
            EXPECT_EQ(stop.message, shown + message);
        }
        io_reset();
        open_units();
    }
    try {
        read("relax_cell = maybe\n");
        ADD_FAILURE() << "relax_cell = maybe must stop";
    } catch (const fatal_stop& stop) {
        EXPECT_EQ(stop.message, "unknown relax_cell 'maybe': use T, F or volume");
    }
    io_reset();
    open_units();
    // A relaxation of the cell computes the stress, whose deviation drives the cell.
    read("ions_algo = 1\nn_steps = 5\nrelax_cell = volume\npressure = 2.5\n");
    EXPECT_EQ(i_algo.relax_cell, relax_cell_volume);
    EXPECT_TRUE(i_algo.calc_stress);
    EXPECT_EQ(i_algo.pressure, 2.5);
    io_reset();
    open_units();
    EXPECT_THROW(read("kpm_block_size = 0\n"), fatal_stop);
    io_reset();
    open_units();
    read("elec_gs_algo = 4\nions_algo = 5\nions_eom_algo = 2\nveloc_start = 0\ntemperature = 0\n"
         "sigma = 0\nthermostat = 0\ndt = -1\nsave_to_file = TRAJ\n"); // no steps: dt unused
    EXPECT_EQ(i_algo.algo, 5);
    bool warned = false;
    for (const auto& l : errors())
        warned |= l.find("unknown save_to_file name TRAJ is ignored (known: POS ENE VEL FOR EIG "
                         "ELO XYZ DOS)") != std::string::npos;
    EXPECT_TRUE(warned);
}

TEST_F(ReadInput, BadValueAndMissingFileStop) {
    try {
        read("n_steps = many\n");
        FAIL();
    } catch (const fatal_stop& stop) {
        EXPECT_EQ(stop.message, "error reading keyword n_steps from file INLYRT");
        EXPECT_EQ(stop.number, 5);
    }
    io_reset();
    open_units();
    try {
        read_input("NOPE", elec_algo, i_algo, tb_model, kpt, system_name, n_electrons, n_states,
                   n_h_dup);
        FAIL();
    } catch (const fatal_stop& stop) {
        EXPECT_EQ(stop.message, "problems opening file NOPEiostat=");
    }
}

} // namespace

namespace {

using namespace lyrt;

// A misspelt keyword is named with the nearest known one, and the run goes on;
// known keywords in any spelling of case and blanks, aliases included, are quiet.
TEST_F(ReadInput, UnknownKeywordsAreNamedWithTheNearestKnownOne) {
    read("sigmaa = 0.1 ; n_stepz = 3\nSigma = 0.2\nnumber _ of _ ionic_steps = 4\n"
         "ions_thermostat = 0\nsave_to_file = FOR\n! comment = x\nkpm_emax\\\n = 3\n");
    EXPECT_EQ(kpt.sigma, 0.2);
    EXPECT_EQ(i_algo.n_steps, 4);
    EXPECT_EQ(elec_algo.kpm_emax, 3.0);
    std::vector<std::string> warned;
    for (const auto& l : errors())
        if (l.find("unknown keyword") != std::string::npos) warned.push_back(l);
    ASSERT_EQ(warned.size(), 2u);
    EXPECT_EQ(warned[0], "        unknown keyword sigmaa in INLYRT is ignored (nearest: sigma)");
    EXPECT_EQ(warned[1], "        unknown keyword n_stepz in INLYRT is ignored (nearest: n_steps)");
}

} // namespace
