// Chebyshev series on [-1, 1] for matrix functions formed from few products: the
// coefficients of a function from its values at the Chebyshev-Gauss nodes; the
// split of a series of (A + 1) q terms into sum_a T_aq(x) sum_j d_aj T_j(x) (j < q),
// which a matrix forms from the q powers T_j and A products with T_q (T_aq =
// T_a(T_q)); the traces Tr T_m of all terms from the traces Tr(T_aq T_j) of
// that split; and quadrature weights at the nodes, so that the trace of any
// function truncated to those terms is a weighted sum of its values at the nodes.
#pragma once

#include <functional>
#include <vector>

namespace lyrt {

// The i-th of n Chebyshev-Gauss nodes, cos(pi (i + 1/2) / n), i = 0..n-1.
double cheb_node(int i, int n);
// The coefficients c_0..c_{m-1} of g = sum c_k T_k from g at n >= m nodes.
void cheb_coefficients(const std::function<double(double)>& g, int n, int m,
                       std::vector<double>& c);
// Terms after which the series of the Fermi function of width w (in units of the
// half-width of the interval) falls below tol anywhere on the interval: its poles
// lie pi w off the real axis.
int cheb_fermi_terms(double w, double tol);
// d(a, j) = d[a q + j] with sum_m c_m T_m = sum_a T_aq sum_j d(a, j) T_j; c holds
// (A + 1) q coefficients (zeros appended by the caller).
void cheb_split(const std::vector<double>& c, int q, std::vector<double>& d);
// tau_m = Tr T_m, m < (A + 1) q, from t[a q + j] = Tr(T_aq T_j) (t[j] = Tr T_j).
void cheb_traces(const std::vector<double>& t, int q, std::vector<double>& tau);
// w_i with sum_i g(x_i) w_i = sum_m c_m tau_m for the coefficients c of g from
// n nodes x_i (n at least the count of tau).
void cheb_node_weights(const std::vector<double>& tau, int n, std::vector<double>& w);

} // namespace lyrt
