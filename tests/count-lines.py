import os,re,sys
def count(path):
    n=0; inblock=False
    for line in open(path,errors='ignore'):
        s=line.strip()
        if inblock:
            if '*/' in s: inblock=False; s=s.split('*/',1)[1].strip()
            else: continue
        if s.startswith('/*'):
            if '*/' not in s: inblock=True
            continue
        if not s or s.startswith('//'): continue
        n+=1
    return n
tot={}
for root,dirs,files in os.walk('.'):
    if root.startswith(('./build','./.git','./third_party')): continue
    for f in files:
        if f.endswith(('.cpp','.h','.hpp','.cc','.mm')):
            p=os.path.join(root,f); top=p.split('/')[1]
            tot[top]=tot.get(top,0)+count(p)
t=tot.get('tests',0); p=sum(v for k,v in tot.items() if k!='tests')
print(tot); print('tests',t,'product',p,'share %.1f%%'%(100*t/p))
