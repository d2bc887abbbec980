"""The mapping's weights against SciPy as the oracle, on random meshes, and
their convergence under refinement."""
import numpy
import pytest

import lockstep

scipy = pytest.importorskip("scipy")
from scipy.interpolate import LinearNDInterpolator, RBFInterpolator  # noqa: E402
from scipy.sparse import coo_matrix  # noqa: E402
from scipy.spatial import Delaunay, cKDTree  # noqa: E402


def matrix(weights):
    rows, columns, values, shape = weights
    return coo_matrix((values, (rows, columns)), shape=shape).tocsr()


def smooth(points):
    x, y = points[:, 0], points[:, 1]
    return numpy.sin(3 * x) * numpy.cos(2 * y) + x * y


RANDOM = numpy.random.default_rng(7)


@pytest.mark.parametrize("dimension", [1, 2, 3])
def test_nearest_neighbour_is_the_k_d_trees_choice(dimension):
    source = RANDOM.random((500, dimension))
    target = RANDOM.random((400, dimension)) * 1.2 - 0.1
    mesh = source[:, 0] if dimension == 1 else source
    weights = matrix(lockstep.mapping_weights(mesh, target[:, 0] if dimension == 1 else target))
    _, nearest = cKDTree(source).query(target)
    assert (weights.indices == nearest).all() and (weights.data == 1).all()


def test_linear_on_given_triangles_and_tetrahedra_is_scipys_to_1e_12():
    for dimension in (2, 3):
        source = RANDOM.random((300, dimension))
        triangulation = Delaunay(source)
        target = RANDOM.random((500, dimension)) * 0.9 + 0.05
        values = smooth(source)
        inside = triangulation.find_simplex(target) >= 0
        weights = matrix(lockstep.mapping_weights(source, target, map="linear", from_cells=triangulation.simplices))
        expected = LinearNDInterpolator(triangulation, values)(target)
        assert numpy.abs((weights @ values)[inside] - expected[inside]).max() <= 1e-12
        # Outside the triangles: the nearest cell's value at the projection,
        # within the range of the values, never garbage.
        outside = weights @ values
        assert numpy.isfinite(outside).all() and numpy.abs(outside).max() <= numpy.abs(values).max() + 1e-12


def test_linear_on_segments_is_numpys_interp_and_projects_onto_curves():
    # A line of points, unsorted, with segments between neighbours.
    line = numpy.sort(RANDOM.random(60))
    order = RANDOM.permutation(60)
    points = line[order]
    rank = numpy.argsort(order)
    segments = numpy.column_stack([rank[:-1], rank[1:]])
    target = RANDOM.random(200)
    values = numpy.sin(3 * points)
    mapped = matrix(lockstep.mapping_weights(points, target, map="linear", from_cells=segments)) @ values
    expected = numpy.interp(target, line, numpy.sin(3 * line))
    assert numpy.abs(mapped - expected).max() <= 1e-12
    # The same line in the plane at x = 1: targets beside it are projected.
    flat = numpy.column_stack([numpy.ones(60), points])
    beside = numpy.column_stack([1 + RANDOM.uniform(-0.1, 0.1, 200), target])
    mapped = matrix(lockstep.mapping_weights(flat, beside, map="linear", from_cells=segments)) @ values
    assert numpy.abs(mapped - expected).max() <= 1e-12


def test_linear_on_a_surface_of_triangles_projects_onto_it():
    # The plane z = 0.3 x + 0.2 y in space, triangulated; targets above and
    # below it take the value at their projection: a linear field exactly.
    flat = RANDOM.random((200, 2))
    triangles = Delaunay(flat).simplices
    source = numpy.column_stack([flat, 0.3 * flat[:, 0] + 0.2 * flat[:, 1]])
    plane = RANDOM.random((100, 2)) * 0.5 + 0.25
    target = numpy.column_stack([plane, 0.3 * plane[:, 0] + 0.2 * plane[:, 1] + RANDOM.uniform(-0.2, 0.2, 100)])
    normal = numpy.array([-0.3, -0.2, 1.0]) / numpy.linalg.norm([-0.3, -0.2, 1.0])
    projected = target - numpy.outer((target - source[0]) @ normal, normal)
    field = lambda p: 1 + 2 * p[:, 0] - p[:, 1] + 0.5 * p[:, 2]  # noqa: E731
    weights = matrix(lockstep.mapping_weights(source, target, map="linear", from_cells=triangles))
    assert numpy.abs(weights @ field(source) - field(projected)).max() <= 1e-12


def test_rbf_with_the_thin_plate_spline_is_scipys_to_1e_8():
    source = RANDOM.random((300, 2))
    target = RANDOM.random((200, 2))
    values = smooth(source)
    weights = matrix(lockstep.mapping_weights(source, target, map="rbf", basis="thin-plate-spline"))
    expected = RBFInterpolator(source, values, kernel="thin_plate_spline", degree=1)(target)
    assert numpy.abs(weights @ values - expected).max() <= 1e-8 * numpy.abs(expected).max()


@pytest.mark.parametrize("words", [dict(map="nearest-neighbour"), dict(map="rbf"), dict(map="rbf-pum"),
                                   dict(map="rbf", basis="wendland-c2", polynomial="off", radius=0.5)])
def test_conservative_keeps_the_sum_and_is_the_transpose_of_the_way_back(words):
    source = RANDOM.random((400, 2))
    target = RANDOM.random((250, 2))
    forces = RANDOM.random(400)
    kept = matrix(lockstep.mapping_weights(source, target, constraint="conservative", **words))
    back = matrix(lockstep.mapping_weights(target, source, **words))
    assert abs((kept - back.T)).max() == 0
    if words.get("polynomial") != "off":
        assert abs((kept @ forces).sum() - forces.sum()) <= 1e-12 * forces.sum()


def test_linear_conservative_takes_the_targets_cells():
    source, target = RANDOM.random((300, 2)), RANDOM.random((200, 2))
    cells = Delaunay(target).simplices
    kept = matrix(lockstep.mapping_weights(source, target, map="linear", constraint="conservative", to_cells=cells))
    back = matrix(lockstep.mapping_weights(target, source, map="linear", from_cells=cells))
    assert abs((kept - back.T)).max() == 0
    forces = RANDOM.random(300)
    assert abs((kept @ forces).sum() - forces.sum()) <= 1e-12 * forces.sum()


def test_convergence_under_refinement():
    """Orders measured on a smooth function in 2-D, targets fixed, sources
    refined: about 1 for nearest-neighbour, about 2 for linear, and rbf-pum
    more accurate than both at every size."""
    target = RANDOM.random((2000, 2)) * 0.8 + 0.1
    exact = smooth(target)
    sizes = [16, 32, 64, 128]
    errors = {"nearest-neighbour": [], "linear": [], "rbf-pum": []}
    for n in sizes:
        grid = numpy.linspace(0, 1, n + 1)
        jitter = RANDOM.uniform(-0.2, 0.2, (len(grid) ** 2, 2)) / n
        source = numpy.column_stack([a.ravel() for a in numpy.meshgrid(grid, grid)])
        source[:, :] += jitter * ((source > 0) & (source < 1))
        cells = Delaunay(source).simplices
        for method in errors:
            extra = {"from_cells": cells} if method == "linear" else {}
            weights = matrix(lockstep.mapping_weights(source, target, map=method, **extra))
            errors[method].append(numpy.abs(weights @ smooth(source) - exact).max())
    print("\nmax error on 2000 points; source grid n x n, h = 1/n")
    print("%-18s" % "method" + "".join("%12s" % ("n=%d" % n) for n in sizes) + "%10s" % "order")
    orders = {}
    for method, error in errors.items():
        orders[method] = numpy.polyfit(numpy.log(1 / numpy.array(sizes)), numpy.log(error), 1)[0]
        print("%-18s" % method + "".join("%12.3e" % e for e in error) + "%10.2f" % orders[method])
    assert 0.8 <= orders["nearest-neighbour"] <= 1.3
    assert 1.8 <= orders["linear"] <= 2.3
    for i in range(len(sizes)):
        assert errors["rbf-pum"][i] < min(errors["linear"][i], errors["nearest-neighbour"][i])
