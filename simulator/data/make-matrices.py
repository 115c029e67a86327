#!/usr/bin/env python3
"""Makes the TOSK matrix files of the four shim systems from the physics of their coils.

usage: make-matrices.py [--check] [FOLDER]

Writes wmxs1a.dat, wmxs1b.dat, wmxs1c.dat and wmxs2a.dat into FOLDER (default: the folder "matrices" beside this
script). With --check it writes nothing and exits 1 when a file in FOLDER differs by a byte from what it would write.

The physics
-----------
The field of a coil is a sum of harmonics, named like the gradients. With degree n and order m,

    Zk = r^k P_k(cos theta)                       m = 0, degree k
    XZk, YZk                                      m = 1, degree k + 1
    (X2-Y2)Zk, XYZk                               m = 2, degree k + 2
    X3Zk, Y3Zk                                    m = 3, degree k + 3

each normalised so that it reads rho^m cos(m phi) (or sin, for the second name of a pair) times (z^k + ...). Its strength
is given in Hz/cm^n of the proton.

A coil is wound for one harmonic H(n, m). At 1 A it makes

    e * ( H(n) + up/a^2 * H(n+2) + down*a^2 * H(n-2) )        all of order m

where e is its efficiency in Hz/cm^n per ampere, a the radius of the coil body in cm, and `up` and `down` the share of
the neighbours that the windings cannot avoid. A harmonic without a name is left out. The efficiency of a coil scales
with the radius as (2 cm / a)^n.

Then the coil sits a little wrong in its body:

  * moved along the bore by d cm: H(n) becomes the sum over k of binom(n-m, k) (-d)^k H(n-k), the order stays;
  * turned about the bore by an angle phi: the cosine harmonic becomes cos(m phi) of itself and sin(m phi) of the sine
    one, the sine harmonic becomes cos(m phi) of itself and -sin(m phi) of the cosine one. The table gives
    t = tan(phi/2), so that the sine and the cosine are fractions.

So each coil has a row E(coil, harmonic) in Hz/cm^n per ampere. One unit of current is 1/130000 A. One unit of a gradient
is what one unit of current in its own coil makes of it, u = e/130000 Hz/cm^n. Hence

    inverse(coil, gradient) = E(coil, gradient) / e(gradient)             gradient per unit of coil
    forward = inverse^-1                                                  coil per unit of gradient

34 coils have a current source, so 34 of the 39 gradients are active in a system. The other five harmonics cannot be
steered: they are whatever the coils make of them.

Everything is computed in fractions and rounded once, to 11 significant digits, when it is written. So the files do not
depend on the machine.
"""
import pathlib
import sys
from fractions import Fraction
from math import comb

# The gradients in the order of their codes: name, degree n, order m, sine (Y-like) or not, efficiency in Hz/cm^n per
# ampere for a body of 2 cm radius.
GRADIENTS = [
    ('Z', 1, 0, False, '2600'), ('Z2', 2, 0, False, '1300'), ('Z3', 3, 0, False, '650'),
    ('Z4', 4, 0, False, '390'), ('Z5', 5, 0, False, '260'), ('X', 1, 1, False, '1950'),
    ('XZ', 2, 1, False, '1300'), ('XZ2', 3, 1, False, '780'), ('(X2-Y2)', 2, 2, False, '1040'),
    ('XY', 2, 2, True, '1040'), ('Y', 1, 1, True, '1950'), ('YZ', 2, 1, True, '1300'),
    ('YZ2', 3, 1, True, '780'), ('(X2-Y2)Z2', 4, 2, False, '325'), ('XZ4', 5, 1, False, '195'),
    ('XZ3', 4, 1, False, '390'), ('Z6', 6, 0, False, '130'), ('(X2-Y2)Z', 3, 2, False, '650'),
    ('YZ4', 5, 1, True, '195'), ('YZ3', 4, 1, True, '390'), ('XYZ2', 4, 2, True, '325'),
    ('XYZ', 3, 2, True, '650'), ('X3Z', 4, 3, False, '260'), ('X3', 3, 3, False, '520'),
    ('Y3Z', 4, 3, True, '260'), ('Y3', 3, 3, True, '520'), ('Z7', 7, 0, False, '65'),
    ('Z8', 8, 0, False, '39'), ('Z9', 9, 0, False, '26'), ('Z10', 10, 0, False, '13'),
    ('XZ5', 6, 1, False, '97.5'), ('YZ5', 6, 1, True, '97.5'), ('(X2-Y2)Z3', 5, 2, False, '195'),
    ('(X2-Y2)Z4', 6, 2, False, '104'), ('(X2-Y2)Z5', 7, 2, False, '52'), ('XYZ3', 5, 2, True, '195'),
    ('XYZ4', 6, 2, True, '104'), ('XYZ5', 7, 2, True, '52'), ('Z0', 0, 0, False, '1300'),
]
CODE = {gradient[0]: code for code, gradient in enumerate(GRADIENTS)}
BY_SHAPE = {(n, m, sine): code for code, (_, n, m, sine, _) in enumerate(GRADIENTS)}

# The coils that have a current source, by coil number: harmonic (None: differs between the systems), shift along the
# bore in um, turn about the bore as 1000 tan(phi/2).
COILS = {
    0: ('Z', 320, 0), 1: ('Z2', -210, 0), 2: ('Z3', 140, 0), 3: ('Z4', -380, 0),
    4: ('Z5', 250, 0), 5: ('Z6', -90, 0), 6: ('Z7', 170, 0), 7: ('X', 410, 8),
    9: ('Y', -350, -6), 11: ('XZ', 220, 11), 12: ('YZ', -160, 5), 13: ('(X2-Y2)', 270, -9),
    14: ('XY', -430, 7), 15: ('XZ2', 120, -4), 16: ('YZ2', 360, 10), 17: ('(X2-Y2)Z', -240, 6),
    18: ('XYZ', 190, -8), 19: ('X3', -310, 5), 20: ('Y3', 280, -7), 21: ('XZ3', -110, 9),
    22: ('YZ3', 330, -5), 23: ('(X2-Y2)Z2', 150, 4), 24: ('XYZ2', -290, 12), 25: ('XZ4', 230, -10),
    26: ('YZ4', -180, 6), 27: ('(X2-Y2)Z3', 260, -6), 28: ('XYZ3', -130, 8), 29: (None, 200, 7),
    30: (None, -270, -9), 31: (None, 160, 5), 33: (None, -220, -4), 36: (None, 240, 10),
    37: (None, -150, -8), 38: ('Z0', 100, 0),
}

# The systems: radius of the coil body in cm, share of the next and of the last but one neighbour, factors on the shifts
# and on the turns, and the harmonics of the coils that differ.
SYSTEMS = {
    'wmxs1a': ('2', '-0.30', '0.020', '1', '1',
               {29: '(X2-Y2)Z4', 30: 'XYZ4', 31: 'XZ5', 33: 'YZ5', 36: 'X3Z', 37: 'Y3Z'}),
    'wmxs1b': ('2', '-0.28', '0.022', '-0.8', '0.6',
               {29: 'Z8', 30: 'Z9', 31: 'XZ5', 33: 'YZ5', 36: 'X3Z', 37: 'Y3Z'}),
    'wmxs1c': ('1.6', '-0.25', '0.018', '0.5', '-1',
               {29: '(X2-Y2)Z4', 30: 'XYZ4', 31: 'Z8', 33: 'Z9', 36: 'X3Z', 37: 'Y3Z'}),
    'wmxs2a': ('2.5', '-0.33', '0.015', '1.2', '1.5',
               {29: '(X2-Y2)Z4', 30: 'XYZ4', 31: 'XZ5', 33: 'YZ5', 36: 'Z8', 37: 'Z9'}),
}


def weight(degree):
    """What a user's unit is worth: the weak coils of high degree, and Z0, move in larger steps."""
    return {0: 10, 1: 1, 2: 1, 3: 1, 4: 2, 5: 2}.get(degree, 4)


def turned(t, times):
    """Cosine and sine of `times` phi, where t = tan(phi/2)."""
    cosine, sine = (1 - t * t) / (1 + t * t), 2 * t / (1 + t * t)
    result = Fraction(1), Fraction(0)
    for _ in range(times):
        result = result[0] * cosine - result[1] * sine, result[1] * cosine + result[0] * sine
    return result


def efficiency(code, radius):
    _, n, _, _, at_two_cm = GRADIENTS[code]
    return Fraction(at_two_cm) * (2 / radius) ** n


def coil_row(system, coil):
    """What one coil makes at 1 A: Hz/cm^n by gradient code."""
    radius, up, down, shift_factor, turn_factor, special = system
    radius, up, down = Fraction(radius), Fraction(up), Fraction(down)
    name, shift_um, turn = COILS[coil]
    code = CODE[name or special[coil]]
    _, n, m, sine, _ = GRADIENTS[code]
    shift = Fraction(shift_um, 10000) * Fraction(shift_factor)
    cosine_part, sine_part = turned(Fraction(turn, 1000) * Fraction(turn_factor), m)
    row = [Fraction(0)] * len(GRADIENTS)
    for degree, share in ((n, Fraction(1)), (n + 2, up / radius ** 2), (n - 2, down * radius ** 2)):
        if (degree, m, sine) not in BY_SHAPE:
            continue
        for k in range(degree - m + 1):
            strength = efficiency(code, radius) * share * comb(degree - m, k) * (-shift) ** k
            row[BY_SHAPE[degree - k, m, sine]] += strength * cosine_part
            if m > 0:
                row[BY_SHAPE[degree - k, m, not sine]] += strength * (-sine_part if sine else sine_part)
    return row


def inverted(rows):
    """The inverse of a square matrix of fractions."""
    size = len(rows)
    work = [row + [Fraction(int(i == j)) for j in range(size)] for i, row in enumerate(rows)]
    for column in range(size):
        pivot = next(i for i in range(column, size) if work[i][column])
        work[column], work[pivot] = work[pivot], work[column]
        divisor = work[column][column]
        work[column] = [x / divisor if x else x for x in work[column]]
        for i in range(size):
            factor = work[i][column]
            if i != column and factor:
                work[i] = [x - factor * y if y else x for x, y in zip(work[i], work[column])]
    return [row[size:] for row in work]


def number(fraction):
    return format(float(fraction), '.11g')


def text_of(name):
    system = SYSTEMS[name]
    radius = Fraction(system[0])
    coils = sorted(COILS)
    active = sorted(CODE[COILS[coil][0] or system[5][coil]] for coil in coils)
    inverse = []
    for coil in coils:
        row = coil_row(system, coil)
        inverse.append([row[code] / efficiency(code, radius) for code in active])
    forward = inverted(inverse)

    lines = [f'% Shim system {name}: {len(coils)} coils, {len(active)} gradients, coil body of {system[0]} cm radius.',
             '% Made by make-matrices.py; change the script, not this file.',
             f'M 1 G {name}',
             '% Coil per unit of gradient: F gradient coil value']
    lines += [f'F {code + 1} {coil + 1} {number(forward[i][j])}'
              for i, code in enumerate(active) for j, coil in enumerate(coils) if forward[i][j]]
    lines.append('% Gradient per unit of coil: I coil gradient value')
    lines += [f'I {coil + 1} {code + 1} {number(inverse[j][i])}'
              for j, coil in enumerate(coils) for i, code in enumerate(active) if inverse[j][i]]
    lines.append('% Weight of each gradient: V gradient value')
    lines += [f'V {code + 1} {weight(GRADIENTS[code][1])}' for code in active]
    lines.append('E')
    return '\n'.join(lines) + '\n'


def main(arguments):
    check = '--check' in arguments
    folders = [argument for argument in arguments if not argument.startswith('-')]
    if len(folders) > 1 or len(arguments) != len(folders) + int(check):
        sys.exit(__doc__.split('\n\n')[1])
    folder = pathlib.Path(folders[0]) if folders else pathlib.Path(__file__).resolve().parent / 'matrices'
    differing = 0
    for name in SYSTEMS:
        path, text = folder / (name + '.dat'), text_of(name).encode('ascii')
        if not check:
            path.write_bytes(text)
        elif not path.is_file() or path.read_bytes() != text:
            print(f'{path} is not what {pathlib.Path(__file__).name} makes', file=sys.stderr)
            differing = 1
    return differing


if __name__ == '__main__':
    sys.exit(main(sys.argv[1:]))
