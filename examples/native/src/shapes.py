"""Shapes and their areas."""

import math


class Circle:
    def __init__(self, radius):
        self.radius = radius

    def area(self):
        return math.pi * self.radius ** 2


def total_area(shapes):
    return sum(shape.area() for shape in shapes)


def largest(shapes):
    return max(shapes, key=lambda shape: shape.area())
