[pid.normal]
i = -2.5
d = 0.25
[pid.slow]
p = 2
i = -3
d = 4
[pid.fast]
p = 5
i = -6
d = 7
[global]
useComputed = 0
[factors]
1HTo19F = 0.5
[fred]
order1 = 0.25
order2 = -0.125
outputShift = 31
[threshold]
locked = 1000
[shimCoilTargetTemperature]
p = 8
i = 9
d = 10
ffOffset = 0.5
ffSlope = -0.75
